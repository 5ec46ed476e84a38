// What of a statement its fold reads: the statement with the digits of its
// numbers, the contents of its strings, its runs of blanks and its leading
// comments collapsed. Two statements with the same skeleton fold alike, so
// one fold serves every statement an application sends with new values.
#ifndef BASEENG_SQL_SKELETON_H
#define BASEENG_SQL_SKELETON_H

#include <cstddef>
#include <string>

#include "normalise_sql.h"

namespace baseeng {

// Longer statements are folded each time, so that the room kept for
// skeletons stays small.
const std::size_t kMaxSkeletonStatementBytes = 64 * 1024;

// Room the skeleton of a statement of size bytes may take while written.
inline std::size_t sqlSkeletonRoom(std::size_t size) { return size + 16; }

// Writes the skeleton of statement at out, which has sqlSkeletonRoom bytes,
// and sets its size; false when the statement has a form whose fold reads
// what would be collapsed: quoted identifiers, which are kept verbatim, and
// Oracle's quoting.
bool writeSqlSkeleton(char* out, const std::string& statement, SqlDialect dialect, std::size_t& size);

}  // namespace baseeng

#endif
