// The C convention of the agent's "..._json(char* out, int size)" functions:
// the text and its NUL when they fit (returns the length), else nothing
// (returns the size needed, NUL included, so a result >= size means "call
// again with a buffer this large").
#ifndef WL_TEXT_OUT_H
#define WL_TEXT_OUT_H

#include <cstring>
#include <string>

namespace wlsock {

inline int text_out(const std::string& text, char* out, int size) {
    const int needed = static_cast<int>(text.size()) + 1;
    if (out == nullptr || size < needed) return needed;
    std::memcpy(out, text.c_str(), static_cast<std::size_t>(needed));
    return needed - 1;
}

}  // namespace wlsock

#endif
