#include "spool_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>

#include "atomic_file.h"
#include "dirutils.h"

namespace wlspool {
namespace {

std::string sysError(const std::string& what) { return what + ": " + std::strerror(errno); }

bool statFile(const std::string& path, uint64_t& ino, uint64_t& size) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return false;
    ino = st.st_ino;
    size = static_cast<uint64_t>(st.st_size);
    return true;
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

SpoolWriter::SpoolWriter(Stream stream, SpoolLimits limits, Floor floor)
    : m_stream(std::move(stream)), m_limits(limits), m_floor(std::move(floor)) {
    m_limits.maxFileBytes = std::max<uint64_t>(m_limits.maxFileBytes, 1024);
    m_limits.maxTotalBytes = std::max(m_limits.maxTotalBytes, 2 * m_limits.maxFileBytes);
}

SpoolWriter::~SpoolWriter() {
    if (m_live >= 0) ::close(m_live);
}

bool SpoolWriter::open(std::string& error) {
    if (dirutils_mkdir(m_stream.dir.c_str(), 0750) != 0) {
        error = "cannot create " + m_stream.dir;
        return false;
    }
    SpoolState saved;
    std::string text, why;
    bool haveState = readSmallFile(m_stream.statePath(), text) && parseState(text, saved, why);
    if (!haveState && !text.empty()) m_notices.push_back(m_stream.statePath() + " unusable (" + why + "); rebuilt");
    m_state.dropped = saved.dropped;
    m_state.droppedBytes = saved.droppedBytes;
    m_state.generation = saved.generation + 1;

    // The rotated files from the oldest on, then the live one.
    std::vector<File> found;
    for (unsigned n = 1;; ++n) {
        File f;
        f.name = baseName(m_stream.rotated(n));
        if (!statFile(m_stream.rotated(n), f.ino, f.size)) break;
        found.insert(found.begin(), f);
    }
    m_live = ::open(m_stream.live().c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (m_live < 0) {
        error = sysError("cannot open " + m_stream.live());
        return false;
    }
    File live;
    live.name = m_stream.base;
    statFile(m_stream.live(), live.ino, live.size);
    found.push_back(live);

    // Renames keep inodes, so the saved starts still hold for files found
    // under new names after a rotation cut short. A file not in the state
    // follows the one before it. Without any state the stream starts past
    // every cursor: sinks then send all that is here again, never skip it.
    std::map<uint64_t, uint64_t> startByIno;
    for (const SpoolFile& f : saved.files) startByIno[f.ino] = f.start;
    uint64_t next = 0;
    if (!haveState) {
        next = highestCursor(m_stream);
    }
    for (File& f : found) {
        auto it = startByIno.find(f.ino);
        f.start = (it != startByIno.end() && it->second >= next) ? it->second : next;
        next = f.start + f.size;
    }
    m_files = std::move(found);

    // A line cut short by a crash is never a whole report: removed and counted.
    File& tail = m_files.back();
    if (tail.size > 0) {
        char last = 0;
        if (::pread(m_live, &last, 1, static_cast<off_t>(tail.size - 1)) != 1) {
            error = sysError("cannot read " + m_stream.live());
            return false;
        }
        if (last != '\n') {
            uint64_t keep = tail.size;
            char c = 0;
            while (keep > 0 && ::pread(m_live, &c, 1, static_cast<off_t>(keep - 1)) == 1 && c != '\n') --keep;
            if (::ftruncate(m_live, static_cast<off_t>(keep)) != 0) {
                error = sysError("cannot truncate " + m_stream.live());
                return false;
            }
            countDrop(1, tail.size - keep, "a line cut short by a crash");
            tail.size = keep;
        }
    }
    return saveState(error);
}

uint64_t SpoolWriter::totalBytes() const {
    uint64_t total = 0;
    for (const File& f : m_files) total += f.size;
    return total;
}

uint64_t SpoolWriter::end() const { return m_files.empty() ? 0 : m_files.back().start + m_files.back().size; }

std::vector<std::string> SpoolWriter::takeNotices() { return std::exchange(m_notices, {}); }

bool SpoolWriter::append(const std::string& input, std::string& error) {
    if (m_live < 0) {
        error = "spool not open";
        countDrop(1, input.size() + 1, "the spool is not open");
        return false;
    }
    std::string line = input;
    std::replace(line.begin(), line.end(), '\n', ' ');
    std::replace(line.begin(), line.end(), '\r', ' ');
    line.push_back('\n');
    if (line.size() > m_limits.maxFileBytes) {
        error = "a line of " + std::to_string(line.size()) + " bytes exceeds max_file_bytes";
        countDrop(1, line.size(), error);
        saveState(error);
        return false;
    }
    File& live = m_files.back();
    if (live.size > 0 && live.size + line.size() > m_limits.maxFileBytes && !rotate(error)) {
        countDrop(1, line.size(), error);
        return false;
    }
    while (m_files.size() > 1 && totalBytes() + line.size() > m_limits.maxTotalBytes) removeOldest();

    File& target = m_files.back();
    if (!writeAll(m_live, line.data(), line.size()) || (m_limits.sync && ::fdatasync(m_live) != 0)) {
        error = sysError("cannot write " + m_stream.live());
        // Whatever part got out would be a torn line: take it back.
        if (::ftruncate(m_live, static_cast<off_t>(target.size)) != 0) {
            m_notices.push_back(sysError("cannot truncate " + m_stream.live()));
        }
        countDrop(1, line.size(), error);
        std::string ignored;
        saveState(ignored);
        return false;
    }
    target.size += line.size();
    return true;
}

bool SpoolWriter::rotate(std::string& error) {
    // Oldest first, so no name is ever overwritten.
    for (size_t i = 0; i + 1 < m_files.size(); ++i) {
        unsigned n = static_cast<unsigned>(m_files.size() - 1 - i);
        if (std::rename(m_stream.rotated(n).c_str(), m_stream.rotated(n + 1).c_str()) != 0) {
            error = sysError("cannot rotate " + m_stream.rotated(n));
            return false;
        }
        m_files[i].name = baseName(m_stream.rotated(n + 1));
    }
    if (std::rename(m_stream.live().c_str(), m_stream.rotated(1).c_str()) != 0) {
        error = sysError("cannot rotate " + m_stream.live());
        return false;
    }
    m_files.back().name = baseName(m_stream.rotated(1));
    ::close(m_live);
    m_live = ::open(m_stream.live().c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (m_live < 0) {
        error = sysError("cannot create " + m_stream.live());
        return false;
    }
    File live;
    live.name = m_stream.base;
    live.start = end();
    uint64_t ignored = 0;
    statFile(m_stream.live(), live.ino, ignored);
    m_files.push_back(live);
    ++m_state.generation;
    file_sync_parent_dir(m_stream.live().c_str());
    return saveState(error);
}

void SpoolWriter::removeOldest() {
    File oldest = m_files.front();
    std::optional<uint64_t> floor = m_floor ? m_floor() : std::nullopt;
    uint64_t fileEnd = oldest.start + oldest.size;
    // The state goes first: a reader then never maps an offset to a file
    // that is about to go.
    m_files.erase(m_files.begin());
    ++m_state.generation;
    if (floor && *floor < fileEnd) {
        uint64_t from = std::max(*floor, oldest.start);
        countDrop(countLines(oldest, from), fileEnd - from, "the spool reached max_total_bytes");
    }
    std::string ignored;
    saveState(ignored);
    std::remove((m_stream.dir + "/" + oldest.name).c_str());
}

uint64_t SpoolWriter::countLines(const File& f, uint64_t from) const {
    int fd = ::open((m_stream.dir + "/" + f.name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    uint64_t lines = 0;
    char buf[65536];
    off_t pos = static_cast<off_t>(from - f.start);
    for (;;) {
        ssize_t n = ::pread(fd, buf, sizeof buf, pos);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        lines += static_cast<uint64_t>(std::count(buf, buf + n, '\n'));
        pos += n;
    }
    ::close(fd);
    return lines;
}

void SpoolWriter::countDrop(uint64_t lines, uint64_t bytes, const std::string& why) {
    if (lines == 0 && bytes == 0) return;
    m_state.dropped += lines;
    m_state.droppedBytes += bytes;
    m_notices.push_back("dropped " + std::to_string(lines) + " unsent line(s), " + std::to_string(bytes) +
                        " bytes, from " + m_stream.live() + ": " + why + " (" + std::to_string(m_state.dropped) +
                        " in all)");
}

void SpoolWriter::countDropped(uint64_t lines, uint64_t bytes, const std::string& why) {
    countDrop(lines, bytes, why);
    std::string ignored;
    saveState(ignored);
}

bool SpoolWriter::saveState(std::string& error) {
    m_state.files.clear();
    for (const File& f : m_files) m_state.files.push_back(SpoolFile{f.name, f.ino, f.start});
    return writeFileAtomic(m_stream.statePath(), formatState(m_state), error);
}

}  // namespace wlspool
