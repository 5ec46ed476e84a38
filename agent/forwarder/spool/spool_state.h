// What a spool keeps beside its JSON-lines files: where each file starts in
// the spool's one logical byte stream, and how much was discarded unsent.
// Positions in that stream survive rotation, so a sink's cursor is a number.
#ifndef WL_SPOOL_STATE_H
#define WL_SPOOL_STATE_H

#include <cstdint>
#include <string>
#include <vector>

namespace wlspool {

// One spool: "<dir>/<base>" is the live file, "<dir>/<base>.N" the rotated
// ones (higher is older), "<dir>/spool.state" the state and
// "<dir>/cursors/<sink>" each sink's position.
struct Stream {
    std::string dir;
    std::string base;

    std::string live() const { return dir + "/" + base; }
    std::string rotated(unsigned n) const { return live() + "." + std::to_string(n); }
    std::string statePath() const { return dir + "/spool.state"; }
    std::string cursorDir() const { return dir + "/cursors"; }
    std::string cursorPath(const std::string& sink) const { return cursorDir() + "/" + sink; }
};

Stream reportStream(const std::string& root);  // <root>/var/spool/manager/reports.jsonl
Stream uploadStream(const std::string& root);  // <root>/var/spool/uploads/uploads.jsonl

struct SpoolFile {
    std::string name;  // relative to the stream's dir
    uint64_t ino = 0;
    uint64_t start = 0;  // logical offset of its first byte
};

struct SpoolState {
    uint64_t generation = 0;       // changes whenever files are renamed or removed
    std::vector<SpoolFile> files;  // oldest first, the live file last
    uint64_t dropped = 0;          // lines discarded before every sink had them
    uint64_t droppedBytes = 0;
};

std::string formatState(const SpoolState& state);
bool parseState(const std::string& text, SpoolState& out, std::string& error);

std::string formatCursor(uint64_t offset);
bool parseCursor(const std::string& text, uint64_t& offset);

// Whole small files (state, cursors): false if missing or unreadable, or
// larger than limit.
bool readSmallFile(const std::string& path, std::string& out, size_t limit = 1 << 20);
// tmp + fsync + rename + directory fsync.
bool writeFileAtomic(const std::string& path, const std::string& text, std::string& error);

// Copies src (a regular file) to dst whole or not at all: tmp + fsync +
// rename + directory fsync. size: the bytes copied.
bool copyFileAtomic(const std::string& src, const std::string& dst, uint64_t& size, std::string& error);

// A sink's position; 0 (the start of time) when it has none yet.
uint64_t readCursor(const Stream& stream, const std::string& sink);
// The furthest position of any sink that has one.
uint64_t highestCursor(const Stream& stream);
bool writeCursor(const Stream& stream, const std::string& sink, uint64_t offset, std::string& error);

}  // namespace wlspool

#endif
