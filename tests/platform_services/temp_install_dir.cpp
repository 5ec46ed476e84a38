#include "temp_install_dir.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>

#include "dirutils.h"

TempInstallDir::TempInstallDir() : m_previous(dirutils_get_install_dir()) {
    char pattern[] = "/tmp/wlps.XXXXXX";
    if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    m_root = pattern;
    std::filesystem::create_directories(m_root + "/agent");
    dirutils_set_install_dir((m_root + "/agent").c_str());
}

TempInstallDir::~TempInstallDir() {
    dirutils_set_install_dir(m_previous.c_str());
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
}
