// A private installation root for one test: "@" points into a fresh
// temporary directory, so "@/../var/..." stays inside it too.
#ifndef PLATFORM_SERVICES_TEMP_INSTALL_DIR_H
#define PLATFORM_SERVICES_TEMP_INSTALL_DIR_H

#include <string>

class TempInstallDir {
public:
    TempInstallDir();
    ~TempInstallDir();
    TempInstallDir(const TempInstallDir&) = delete;
    TempInstallDir& operator=(const TempInstallDir&) = delete;

    const std::string& root() const { return m_root; }  // what "@/.." means

private:
    std::string m_root;
    std::string m_previous;
};

#endif
