#include "request_line.h"

namespace taskpush {

LineResult parse_request_line(const std::string& line, std::string* name, unsigned long* length) {
    size_t space = line.find(' ');
    if (space == 0 || space == std::string::npos) return LineResult::Malformed;
    std::string head = line.substr(0, space);
    std::string digits = line.substr(space + 1);
    for (char c : head) {
        if (c <= ' ' || c > '~') return LineResult::Malformed;
    }
    if (digits.empty()) return LineResult::Malformed;
    unsigned long value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return LineResult::Malformed;
        value = value * 10 + static_cast<unsigned long>(c - '0');
        if (value > kMaxBody) return LineResult::TooLarge;  // stops before it can wrap
    }
    *name = head;
    *length = value;
    return LineResult::Ok;
}

}  // namespace taskpush
