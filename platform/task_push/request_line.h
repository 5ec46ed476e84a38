// The request line of the task socket: "<handler name> <length>".
#ifndef TASKPUSH_REQUEST_LINE_H
#define TASKPUSH_REQUEST_LINE_H

#include <string>

namespace taskpush {

constexpr unsigned long kMaxBody = 4ul * 1024 * 1024;
constexpr size_t kMaxLine = 256;

enum class LineResult { Ok, Malformed, TooLarge };

// line: without its "\n".
LineResult parse_request_line(const std::string& line, std::string* name, unsigned long* length);

}  // namespace taskpush

#endif
