#include "file_hash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <memory>
#include <vector>

namespace wlc {
namespace {

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
};

using DigestContext = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

std::string hex(const unsigned char* bytes, unsigned int size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (unsigned int i = 0; i < size; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0xf];
    }
    return out;
}

// Both digests in one pass over the file; empty on any failure.
FileHashes digestFile(int fd, uint64_t maxBytes) {
    DigestContext md5(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    DigestContext sha(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!md5 || !sha || EVP_DigestInit_ex(md5.get(), EVP_md5(), nullptr) != 1 ||
        EVP_DigestInit_ex(sha.get(), EVP_sha256(), nullptr) != 1)
        return {};
    std::vector<unsigned char> buffer(64 * 1024);
    uint64_t total = 0;
    off_t offset = 0;
    while (true) {
        ssize_t n = ::pread(fd, buffer.data(), buffer.size(), offset);
        if (n < 0) return {};
        if (n == 0) break;
        total += static_cast<uint64_t>(n);
        if (total > maxBytes) return {};
        offset += n;
        EVP_DigestUpdate(md5.get(), buffer.data(), static_cast<size_t>(n));
        EVP_DigestUpdate(sha.get(), buffer.data(), static_cast<size_t>(n));
    }
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    FileHashes hashes;
    if (EVP_DigestFinal_ex(md5.get(), out, &size) != 1) return {};
    hashes.md5 = hex(out, size);
    if (EVP_DigestFinal_ex(sha.get(), out, &size) != 1) return {};
    hashes.sha256 = hex(out, size);
    return hashes;
}

}  // namespace

FileHasher::FileHasher(std::size_t capacity, uint64_t maxBytes)
    : m_capacity(capacity == 0 ? 1 : capacity), m_maxBytes(maxBytes) {}

FileHashes FileHasher::hashPath(const std::string& path) {
    FdCloser file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return {};
    return hashFd(file.fd);
}

FileHashes FileHasher::hashFd(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return {};
    Key key{st.st_dev, st.st_ino, st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_size};
    auto found = m_cache.find(key);
    if (found != m_cache.end()) {
        ++m_hits;
        m_recent.splice(m_recent.begin(), m_recent, found->second.second);
        return found->second.first;
    }
    ++m_filesRead;
    FileHashes hashes = digestFile(fd, m_maxBytes);
    if (hashes.md5.empty()) return hashes;
    if (m_cache.size() >= m_capacity) {
        m_cache.erase(m_recent.back());
        m_recent.pop_back();
    }
    m_recent.push_front(key);
    m_cache.emplace(key, std::make_pair(hashes, m_recent.begin()));
    return hashes;
}

}  // namespace wlc
