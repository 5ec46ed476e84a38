// What of a statement its fold reads: the statement with the digits of its
// numbers, the contents of its strings, its runs of blanks and its leading
// comments collapsed. Two statements with the same skeleton fold alike, so
// one fold serves every statement an application sends with new values.
#ifndef BASEENG_SQL_SKELETON_H
#define BASEENG_SQL_SKELETON_H

#include <string>

#include "normalise_sql.h"

namespace baseeng {

// Appends the skeleton of statement to out; false (out as it was) when the
// statement has a form whose fold reads what would be collapsed: quoted
// identifiers, which are kept verbatim, and Oracle's quoting.
bool appendSqlSkeleton(std::string& out, const std::string& statement, SqlDialect dialect);

}  // namespace baseeng

#endif
