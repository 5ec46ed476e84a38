#include "spool_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "wl_unique_fd.h"

namespace wlspool {

struct SpoolReader::Open {
    wl::UniqueFd fd;
    uint64_t start = 0;
    uint64_t size = 0;
};

namespace {

bool loadState(const Stream& stream, SpoolState& state, bool& present, std::string& error) {
    std::string text;
    present = readSmallFile(stream.statePath(), text);
    if (!present) {
        state = SpoolState{};
        return true;
    }
    if (!parseState(text, state, error)) {
        error = stream.statePath() + ": " + error;
        return false;
    }
    return true;
}

}  // namespace

// Opens every file the state names and checks, by inode and by a second
// look at the state, that no rotation came in between. The open files then
// hold still whatever the agent does next.
bool SpoolReader::snapshot(std::vector<Open>& files, SpoolState& state, std::string& error) const {
    for (int attempt = 0; attempt < 8; ++attempt) {
        files.clear();
        bool present = false;
        if (!loadState(m_stream, state, present, error)) return false;
        if (!present) {
            // Never written by the agent: the live file alone, from 0.
            state.files = {SpoolFile{m_stream.base, 0, 0}};
        }
        bool consistent = true;
        for (const SpoolFile& f : state.files) {
            Open o;
            o.fd.reset(::open((m_stream.dir + "/" + f.name).c_str(), O_RDONLY | O_CLOEXEC));
            struct stat st;
            if (!o.fd.valid() || ::fstat(o.fd.get(), &st) != 0) {
                if (!present && errno == ENOENT) return true;  // nothing spooled yet
                consistent = false;
                break;
            }
            if (present && static_cast<uint64_t>(st.st_ino) != f.ino) {
                consistent = false;
                break;
            }
            o.start = f.start;
            o.size = static_cast<uint64_t>(st.st_size);
            files.push_back(std::move(o));
        }
        if (!consistent) continue;
        SpoolState again;
        bool stillPresent = false;
        if (!loadState(m_stream, again, stillPresent, error)) return false;
        if (stillPresent == present && again.generation == state.generation) return true;
    }
    error = m_stream.dir + ": the spool kept changing while being read";
    return false;
}

bool SpoolReader::extent(Extent& out, std::string& error) const {
    std::vector<Open> files;
    SpoolState state;
    if (!snapshot(files, state, error)) return false;
    out = Extent{};
    out.dropped = state.dropped;
    if (files.empty()) return true;
    out.begin = files.front().start;
    out.end = files.back().start + files.back().size;
    for (const Open& f : files) out.bytes += f.size;
    return true;
}

bool SpoolReader::read(uint64_t from, size_t maxLines, size_t maxBytes, Batch& out, std::string& error) const {
    out = Batch{};
    std::vector<Open> files;
    SpoolState state;
    if (!snapshot(files, state, error)) return false;
    if (files.empty() || maxLines == 0) return true;
    const uint64_t asked = from;
    uint64_t begin = files.front().start;
    uint64_t end = files.back().start + files.back().size;
    // Below the oldest file: removed unsent (the agent counted it). Past the
    // end: the stream was rebuilt; sending it all again keeps at least once.
    if (from < begin || from > end) from = begin;
    // The file that holds `from`; at the end of a file, the next one.
    size_t i = 0;
    while (i + 1 < files.size() && from >= files[i].start + files[i].size) ++i;
    Open& f = files[i];
    if (from < f.start) from = f.start;  // a gap between files
    if (from != asked) {
        out.moved = true;
        out.movedTo = from;
    }
    uint64_t pos = from - f.start;
    std::string buf;
    size_t want = std::min<uint64_t>(std::max<size_t>(maxBytes, 4096), f.size - pos);
    while (pos < f.size && out.lines.size() < maxLines) {
        buf.resize(want);
        ssize_t n;
        do {
            n = ::pread(f.fd.get(), &buf[0], want, static_cast<off_t>(pos));
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            error = std::string("cannot read the spool: ") + std::strerror(errno);
            return false;
        }
        if (n == 0) break;
        buf.resize(static_cast<size_t>(n));
        size_t lineStart = 0;
        size_t used = 0;
        for (;;) {
            size_t nl = buf.find('\n', lineStart);
            if (nl == std::string::npos || out.lines.size() >= maxLines) break;
            size_t length = nl - lineStart;
            if (!out.lines.empty() && used + length + 1 > maxBytes) break;
            Line line;
            line.offset = f.start + pos + lineStart;
            line.end = line.offset + length + 1;
            line.text.assign(buf, lineStart, length);
            out.lines.push_back(std::move(line));
            used += length + 1;
            lineStart = nl + 1;
        }
        if (!out.lines.empty()) break;
        // Not one whole line in the buffer: a long line, or one being written.
        if (static_cast<uint64_t>(n) >= f.size - pos) break;
        if (want >= kMaxLine) {
            error = "a spool line exceeds " + std::to_string(kMaxLine) + " bytes";
            return false;
        }
        want = std::min<uint64_t>(want * 2, f.size - pos);
    }
    return true;
}

}  // namespace wlspool
