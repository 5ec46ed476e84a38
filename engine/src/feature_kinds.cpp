#include "feature_kinds.h"

#include <cstring>

#include "normalise_command.h"
#include "normalise_path.h"

namespace baseeng {

namespace {

bool isSqlKind(const std::string& kind) {
    return kind == "hsql" || kind == "mysql" || kind == "oracle" || kind == "postgre" || kind == "sqlserver";
}

}  // namespace

bool isFileKind(const char* kind, std::size_t size) {
    auto is = [&](const char* name) { return std::strlen(name) == size && std::memcmp(kind, name, size) == 0; };
    return is("file") || is("write") || is("read") || is("delete");
}

SqlDialect dialectOfKind(const std::string& kind) {
    if (kind == "mysql") {
        return SqlDialect::MySql;
    }
    if (kind == "oracle") {
        return SqlDialect::Oracle;
    }
    if (kind == "postgre") {
        return SqlDialect::Postgres;
    }
    if (kind == "sqlserver") {
        return SqlDialect::SqlServer;
    }
    return SqlDialect::Standard;
}

std::string upgradedSubject(const std::string& kind, const std::string& subject) {
    if (isFileKind(kind.data(), kind.size())) {
        return normalisePath(subject);
    }
    if (isSqlKind(kind)) {
        return normaliseSql(subject, dialectOfKind(kind));
    }
    if (kind == "execute") {
        return normaliseCommand(std::string(), subject, nullptr);
    }
    // process paths, connections, names and ports were stored as they are now.
    return subject;
}

}  // namespace baseeng
