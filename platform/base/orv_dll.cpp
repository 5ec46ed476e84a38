#include "orv_dll.h"

#include <dlfcn.h>
#include <unistd.h>

extern "C" int orv_dll_open(const char* path, void** handle) {
    if (!handle) return -1;
    void* opened = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!opened) return -1;
    *handle = opened;
    return 0;
}

extern "C" int orv_dll_get_addr(void* handle, const char* name, void** address) {
    if (!name || !address) return -1;
    dlerror();
    void* found = dlsym(handle ? handle : RTLD_DEFAULT, name);
    if (!found) return -1;
    *address = found;
    return 0;
}

extern "C" int orv_dll_close(void* handle) {
    if (!handle) return -1;
    return dlclose(handle) == 0 ? 0 : -1;
}

extern "C" int orv_path_is_exist_u(const char* path) { return path && access(path, F_OK) == 0 ? 1 : 0; }
