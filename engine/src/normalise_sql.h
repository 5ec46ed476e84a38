// An SQL statement as a stable feature: its shape without its values.
#ifndef BASEENG_NORMALISE_SQL_H
#define BASEENG_NORMALISE_SQL_H

#include <cstddef>
#include <string>

namespace baseeng {

// Quoting and comments differ between servers; the rest is common.
enum class SqlDialect { Standard, MySql, Oracle, Postgres, SqlServer };

// The statement is a std::string so that its terminator ends every scan of
// a word or a blank run without a bound check.
void appendNormalisedSql(std::string& out, const std::string& statement, SqlDialect dialect);
std::string normaliseSql(const std::string& text, SqlDialect dialect);

}  // namespace baseeng

#endif
