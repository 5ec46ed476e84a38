// Environment settings for one test: the channels read their limits when
// their servers start, so these are made before and undone after.
#ifndef PLATFORM_SERVICES_SCOPED_ENV_H
#define PLATFORM_SERVICES_SCOPED_ENV_H

#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

class ScopedEnv {
public:
    explicit ScopedEnv(std::vector<std::pair<std::string, std::string>> settings) : m_settings(std::move(settings)) {
        for (const auto& s : m_settings) setenv(s.first.c_str(), s.second.c_str(), 1);
    }
    ~ScopedEnv() {
        for (const auto& s : m_settings) unsetenv(s.first.c_str());
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::vector<std::pair<std::string, std::string>> m_settings;
};

// Lets other users walk down to the install root's sockets (a temporary
// directory starts private), as on a real host.
inline bool open_path_to_sockets(const std::string& root) {
    for (const std::string& dir : {root, root + "/var", root + "/var/run"}) {
        if (chmod(dir.c_str(), 0755) != 0) return false;
    }
    return true;
}

#endif
