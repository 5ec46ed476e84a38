// Cuts a byte stream into newline-delimited texts, refusing blank lines and
// lines over a size limit without losing the rest of the stream.
#ifndef ORV_RASP_LINE_ASSEMBLER_H
#define ORV_RASP_LINE_ASSEMBLER_H

#include <cstddef>
#include <functional>
#include <string>

namespace orv_rasp {

enum class LineRefusal { Blank, TooLong };

class LineAssembler {
public:
    using LineFn = std::function<void(const std::string& line)>;
    using RefusalFn = std::function<void(LineRefusal reason, std::size_t length)>;

    LineAssembler(std::size_t maxLine, LineFn onLine, RefusalFn onRefused);

    void feed(const char* data, std::size_t size);
    // End of stream: a last line without its newline still counts.
    void finish();
    // A line has begun and not ended.
    bool partial() const { return m_length > 0; }
    // Bytes held for the line under way.
    std::size_t buffered() const { return m_line.size(); }

private:
    void endLine();

    std::size_t m_maxLine;
    LineFn m_onLine;
    RefusalFn m_onRefused;
    std::string m_line;
    std::size_t m_length = 0;  // bytes of the current line, kept or not
    bool m_tooLong = false;
};

}  // namespace orv_rasp

#endif
