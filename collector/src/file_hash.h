// MD5 and SHA-256 of executables, cached by device, inode, size and
// modification time, so a program is read once until it changes.
#ifndef WLC_FILE_HASH_H
#define WLC_FILE_HASH_H

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <tuple>

namespace wlc {

struct FileHashes {
    std::string md5;  // lower-case hex, empty when the file could not be read
    std::string sha256;
};

class FileHasher {
public:
    explicit FileHasher(std::size_t capacity = 1024, uint64_t maxBytes = 512ull << 20);

    // Hashes the file behind path (opened with O_RDONLY; a /proc/<pid>/exe
    // link opens the very program a process runs, even a deleted one).
    FileHashes hashPath(const std::string& path);
    // Same, for a descriptor the caller owns.
    FileHashes hashFd(int fd);

    uint64_t filesRead() const { return m_filesRead; }
    uint64_t cacheHits() const { return m_hits; }

private:
    using Key = std::tuple<dev_t, ino_t, int64_t, int64_t, off_t>;  // dev, inode, mtime s, mtime ns, size

    std::size_t m_capacity;
    uint64_t m_maxBytes;
    std::map<Key, std::pair<FileHashes, std::list<Key>::iterator>> m_cache;
    std::list<Key> m_recent;  // most recent first
    uint64_t m_filesRead = 0;
    uint64_t m_hits = 0;
};

}  // namespace wlc

#endif
