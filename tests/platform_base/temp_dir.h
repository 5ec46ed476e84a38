// A fresh directory under the system's temporary directory, removed with
// everything in it at the end of the test.
#ifndef PLATFORM_BASE_TEMP_DIR_H
#define PLATFORM_BASE_TEMP_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class TempDir {
public:
    TempDir() : m_path((std::filesystem::temp_directory_path() / "kembase-test-XXXXXX").string()) {
        if (!mkdtemp(&m_path[0])) throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

#endif
