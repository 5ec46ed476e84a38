// Appends lines to a spool: rotates the live file by size and keeps the
// whole spool under a byte bound by removing the oldest files. Lines removed
// before every sink had them are counted, and the count is kept on disk.
#ifndef WL_SPOOL_WRITER_H
#define WL_SPOOL_WRITER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "spool_state.h"

namespace wlspool {

struct SpoolLimits {
    uint64_t maxFileBytes = 4u << 20;
    uint64_t maxTotalBytes = 64u << 20;
    bool sync = true;  // fdatasync each line before the append returns
};

class SpoolWriter {
public:
    // The least offset that some sink has not had yet; nullopt when no sink
    // reads the spool, and nothing removed counts as unsent.
    using Floor = std::function<std::optional<uint64_t>()>;

    SpoolWriter(Stream stream, SpoolLimits limits, Floor floor);
    ~SpoolWriter();
    SpoolWriter(const SpoolWriter&) = delete;
    SpoolWriter& operator=(const SpoolWriter&) = delete;

    // Finds the files, repairs what a crash left (a torn last line, a
    // rotation half done) and opens the live file.
    bool open(std::string& error);

    // Appends text and a newline; line breaks inside text become blanks (a
    // JSON text keeps its meaning). A line that cannot be stored is counted
    // as dropped and false is returned with the reason.
    bool append(const std::string& text, std::string& error);

    // Counts lines lost outside the spool's files (a copy that failed, a
    // file removed for room) with the spool's own, and keeps the count.
    void countDropped(uint64_t lines, uint64_t bytes, const std::string& why);

    uint64_t dropped() const { return m_state.dropped; }
    uint64_t totalBytes() const;
    uint64_t end() const;  // logical offset after the last line
    // What happened that an operator should hear of (discards, repairs).
    std::vector<std::string> takeNotices();

private:
    struct File {
        std::string name;
        uint64_t ino = 0;
        uint64_t start = 0;
        uint64_t size = 0;
    };

    bool rotate(std::string& error);
    void removeOldest();
    bool saveState(std::string& error);
    void countDrop(uint64_t lines, uint64_t bytes, const std::string& why);
    uint64_t countLines(const File& f, uint64_t from) const;

    Stream m_stream;
    SpoolLimits m_limits;
    Floor m_floor;
    SpoolState m_state;
    std::vector<File> m_files;  // oldest first, live last
    int m_live = -1;
    std::vector<std::string> m_notices;
};

}  // namespace wlspool

#endif
