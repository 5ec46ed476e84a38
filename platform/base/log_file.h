// One log file shared by every thread bound to it: writes are serialized and
// the file is rotated to "<path>.1" when it grows past the maximum size.
#ifndef KEMBASE_LOG_FILE_H
#define KEMBASE_LOG_FILE_H

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "wl_unique_fd.h"

namespace kembase {

class LogFile {
public:
    // Null when the file can't be opened for appending.
    static std::shared_ptr<LogFile> open(const std::string& path);

    explicit LogFile(std::string path, wl::UniqueFd fd, long size);
    void write(const char* data, size_t len, long maxSize);
    const std::string& path() const { return m_path; }

private:
    void rotate();

    std::mutex m_lock;
    std::string m_path;
    wl::UniqueFd m_fd;
    long m_size;
};

}  // namespace kembase

#endif
