// A fresh directory under the system's temporary directory, removed with
// everything in it at the end of the test; and the install root variant,
// which points "@" into it for the test's length.
#ifndef WL_TEST_TEMP_DIR_H
#define WL_TEST_TEMP_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "dirutils.h"

class TempDir {
public:
    TempDir() : m_path((std::filesystem::temp_directory_path() / "wl-test-XXXXXX").string()) {
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

// "@" is <dir>/<install>, so that "@/../var/..." stays inside the directory.
class TempInstallRoot : public TempDir {
public:
    explicit TempInstallRoot(const std::string& install = "lib") {
        const char* previous = dirutils_get_install_dir();
        m_previous = previous != nullptr ? previous : "";
        std::filesystem::create_directories(*this / install);
        dirutils_set_install_dir((*this / install).c_str());
    }
    ~TempInstallRoot() { dirutils_set_install_dir(m_previous.c_str()); }

private:
    std::string m_previous;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Creates or truncates.
inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

#endif
