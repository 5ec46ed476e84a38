// The installation directory behind "@" and directory creation.
#include "dirutils.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <string>

namespace {

struct InstallDir {
    std::mutex lock;
    bool fixed = false;
    // A fixed array so that the pointer handed out stays valid.
    char text[PATH_MAX + 1] = {0};
};

InstallDir& installDir() {
    static InstallDir dir;
    return dir;
}

// Until the host sets it, follow the environment and the working directory
// as they are now.
void refreshLocked(InstallDir& dir) {
    if (dir.fixed) return;
    const char* env = getenv("WL_INSTALL_DIR");
    if (env && *env) {
        strncpy(dir.text, env, PATH_MAX);
        dir.text[PATH_MAX] = '\0';
    } else if (!getcwd(dir.text, sizeof dir.text)) {
        strcpy(dir.text, ".");
    }
}

bool isDirectory(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

extern "C" void dirutils_set_install_dir(const char* dir) {
    InstallDir& state = installDir();
    std::lock_guard<std::mutex> guard(state.lock);
    if (!dir) {
        state.fixed = false;
        return;
    }
    strncpy(state.text, dir, PATH_MAX);
    state.text[PATH_MAX] = '\0';
    state.fixed = true;
}

extern "C" const char* dirutils_get_install_dir(void) {
    InstallDir& state = installDir();
    std::lock_guard<std::mutex> guard(state.lock);
    refreshLocked(state);
    return state.text;
}

extern "C" int dirutils_path_transform(const char* pattern, char* buf, size_t size) {
    if (!pattern || !buf || size == 0) return -1;
    std::string result;
    if (pattern[0] == '@') {
        InstallDir& state = installDir();
        std::lock_guard<std::mutex> guard(state.lock);
        refreshLocked(state);
        result = state.text;
        result += pattern + 1;
    } else {
        result = pattern;
    }
    size_t n = result.size() < size - 1 ? result.size() : size - 1;
    memcpy(buf, result.data(), n);
    buf[n] = '\0';
    return 0;
}

extern "C" int dirutils_mkdir(const char* path, int mode) {
    if (!path || !*path) return -1;
    std::string full(path);
    // Create each ancestor in turn; one that exists already is fine.
    for (size_t pos = full.find('/', 1); pos != std::string::npos; pos = full.find('/', pos + 1)) {
        std::string prefix = full.substr(0, pos);
        if (mkdir(prefix.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) return -1;
    }
    if (mkdir(full.c_str(), static_cast<mode_t>(mode)) != 0 && errno != EEXIST) return -1;
    return isDirectory(full) ? 0 : -1;
}
