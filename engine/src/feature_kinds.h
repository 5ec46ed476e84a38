// The kinds of features and how their subjects are normalised, for what a
// model file of an earlier format stored as literal text.
#ifndef BASEENG_FEATURE_KINDS_H
#define BASEENG_FEATURE_KINDS_H

#include <string>

#include "normalise_sql.h"

namespace baseeng {

// Kinds whose subject is a file path: host "file", and the runtime
// application's "write", "read" and "delete".
bool isFileKind(const char* kind, std::size_t size);

// The dialect of an SQL kind ("mysql", "postgre", ...); Standard otherwise.
SqlDialect dialectOfKind(const std::string& kind);

// A subject stored before features were normalised, in today's form.
std::string upgradedSubject(const std::string& kind, const std::string& subject);

}  // namespace baseeng

#endif
