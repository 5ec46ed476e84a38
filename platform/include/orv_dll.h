/* Shared-library loading and path tests of the agent's base library. */
#ifndef ORV_DLL_H
#define ORV_DLL_H

#ifdef __cplusplus
extern "C" {
#endif

/* 0 on success; errno is left as dlopen/dlsym leave it on failure. */
int orv_dll_open(const char* path, void** handle);
int orv_dll_get_addr(void* handle, const char* name, void** address);
int orv_dll_close(void* handle);

/* Non-zero when the path exists. */
int orv_path_is_exist_u(const char* path);

#ifdef __cplusplus
}
#endif

#endif
