// Reads whole lines from a spool by logical offset, while the agent appends,
// rotates and removes files beside it.
#ifndef WL_SPOOL_READER_H
#define WL_SPOOL_READER_H

#include <cstdint>
#include <string>
#include <vector>

#include "spool_state.h"

namespace wlspool {

struct Line {
    uint64_t offset = 0;  // of its first byte
    uint64_t end = 0;     // past its newline: the cursor once it is delivered
    std::string text;     // without the newline
};

struct Batch {
    std::vector<Line> lines;
    // Set when the asked offset was no longer there (removed by the bound,
    // or the stream was rebuilt): reading went on from here.
    bool moved = false;
    uint64_t movedTo = 0;
};

struct Extent {
    uint64_t begin = 0;  // oldest offset still on disk
    uint64_t end = 0;    // past the last complete byte written
    uint64_t bytes = 0;
    uint64_t dropped = 0;
};

class SpoolReader {
public:
    static constexpr size_t kMaxLine = 64u << 20;

    explicit SpoolReader(Stream stream) : m_stream(std::move(stream)) {}

    // Complete lines from `from` on: at most maxLines, and no more than
    // maxBytes unless the first line alone is longer. Empty when there is
    // nothing new. False with error when the spool cannot be read.
    bool read(uint64_t from, size_t maxLines, size_t maxBytes, Batch& out, std::string& error) const;
    bool extent(Extent& out, std::string& error) const;

    const Stream& stream() const { return m_stream; }

private:
    struct Open;
    bool snapshot(std::vector<Open>& files, SpoolState& state, std::string& error) const;

    Stream m_stream;
};

}  // namespace wlspool

#endif
