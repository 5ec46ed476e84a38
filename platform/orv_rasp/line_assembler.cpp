#include "line_assembler.h"

#include <cstring>
#include <utility>

namespace orv_rasp {

namespace {
bool isBlank(const std::string& line) {
    for (char c : line) {
        if (c != ' ' && c != '\t' && c != '\r' && c != '\v' && c != '\f') {
            return false;
        }
    }
    return true;
}
}  // namespace

LineAssembler::LineAssembler(std::size_t maxLine, LineFn onLine, RefusalFn onRefused)
    : m_maxLine(maxLine), m_onLine(std::move(onLine)), m_onRefused(std::move(onRefused)) {}

void LineAssembler::feed(const char* data, std::size_t size) {
    while (size > 0) {
        const char* newline = static_cast<const char*>(std::memchr(data, '\n', size));
        const std::size_t chunk = newline != nullptr ? static_cast<std::size_t>(newline - data) : size;
        m_length += chunk;
        if (!m_tooLong) {
            if (m_length > m_maxLine) {
                // Stop buffering; the rest of this line is skipped as it comes.
                m_tooLong = true;
                std::string().swap(m_line);
            } else {
                m_line.append(data, chunk);
            }
        }
        if (newline == nullptr) {
            return;
        }
        endLine();
        data += chunk + 1;
        size -= chunk + 1;
    }
}

void LineAssembler::finish() {
    if (m_length > 0) {
        endLine();
    }
}

void LineAssembler::endLine() {
    if (m_tooLong) {
        m_onRefused(LineRefusal::TooLong, m_length);
    } else {
        if (!m_line.empty() && m_line.back() == '\r') {
            m_line.pop_back();
        }
        if (isBlank(m_line)) {
            m_onRefused(LineRefusal::Blank, m_length);
        } else {
            m_onLine(m_line);
        }
    }
    m_line.clear();
    m_length = 0;
    m_tooLong = false;
}

}  // namespace orv_rasp
