// A fresh directory for one test, removed with everything in it.
#ifndef TESTS_FORWARDER_TEMP_ROOT_H
#define TESTS_FORWARDER_TEMP_ROOT_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class TempRoot {
public:
    TempRoot() : m_path((std::filesystem::temp_directory_path() / "wl-fwd-test-XXXXXX").string()) {
        if (!mkdtemp(&m_path[0])) throw std::runtime_error("mkdtemp failed");
    }
    ~TempRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void spit(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

#endif
