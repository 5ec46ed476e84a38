// The folds read text an application under watch chose. Besides running them
// under the sanitizers, this checks the statement skeleton: two statements
// with one skeleton must fold alike, or a remembered fold would answer for a
// statement of another shape. The second statement is the first with its
// digits, blanks or letters changed, which is where the skeleton collapses.
#include <cstddef>
#include <cstdint>
#include <string>

#include "../platform/fuzz_check.h"
#include "normalise_command.h"
#include "normalise_path.h"
#include "normalise_sql.h"
#include "sql_skeleton.h"
#include "variable_runs.h"

using namespace baseeng;

namespace {

const SqlDialect kDialects[] = {SqlDialect::Standard, SqlDialect::MySql, SqlDialect::Oracle, SqlDialect::Postgres,
                                SqlDialect::SqlServer};

std::string nextDigits(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (isDigit(c)) c = static_cast<char>('0' + (c - '0' + 1) % 10);
    }
    return out;
}

std::string longerNumbers(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        out.push_back(text[i]);
        if (isDigit(text[i]) && (i + 1 == text.size() || !isDigit(text[i + 1]))) out.push_back('7');
    }
    return out;
}

std::string otherBlanks(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
            out += c == ' ' ? "\n\t" : " ";
        } else {
            out.push_back(c);
        }
    }
    return out;
}

std::string otherLetters(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (isLower(c)) c = c == 'z' ? 'a' : static_cast<char>(c + 1);
        if (isDigit(c)) c = static_cast<char>('0' + (c - '0' + 3) % 10);
    }
    return out;
}

bool skeletonOf(const std::string& statement, SqlDialect dialect, std::string& skeleton) {
    skeleton.resize(sqlSkeletonRoom(statement.size()));
    std::size_t size = 0;
    if (!writeSqlSkeleton(&skeleton[0], statement, dialect, size)) {
        return false;
    }
    skeleton.resize(size);
    return true;
}

void checkSkeleton(const std::string& statement, SqlDialect dialect) {
    const std::string folded = normaliseSql(statement, dialect);
    FUZZ_CHECK(folded.size() <= 2 * statement.size() + 8);
    std::string skeleton;
    if (!skeletonOf(statement, dialect, skeleton)) {
        return;
    }
    FUZZ_CHECK(skeleton.size() <= statement.size());
    for (const std::string& other :
         {nextDigits(statement), longerNumbers(statement), otherBlanks(statement), otherLetters(statement)}) {
        std::string otherSkeleton;
        if (skeletonOf(other, dialect, otherSkeleton) && otherSkeleton == skeleton) {
            FUZZ_CHECK(normaliseSql(other, dialect) == folded);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    checkSkeleton(text, kDialects[data[0] % 5]);

    const std::string path = normalisePath(text);
    FUZZ_CHECK(path.size() <= foldedBound(text.size()));
    const DirectorySet learned = {"/var/lib/app", "/tmp"};
    const std::size_t space = text.find(' ');
    const std::string executable = space == std::string::npos ? text : text.substr(0, space);
    normaliseCommand(executable, text, data[0] & 0x80 ? &learned : nullptr);
    return 0;
}
