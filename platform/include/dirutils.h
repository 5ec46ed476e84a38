/* Paths of the agent's tree. */
#ifndef DIRUTILS_H
#define DIRUTILS_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The directory that "@" stands for. The host process sets it; until then
 * it comes from the environment variable WL_INSTALL_DIR, else the current
 * directory. A null dir goes back to that default. */
void dirutils_set_install_dir(const char* dir);
const char* dirutils_get_install_dir(void);

/* Turns a leading "@" into the installation directory, into buf. Other
 * paths are copied. The result is cut to size - 1 bytes. 0 on success,
 * -1 for a null argument. */
int dirutils_path_transform(const char* pattern, char* buf, size_t size);

/* Creates the directory and its parents; an existing directory is success.
 * 0 on success, -1 otherwise. */
int dirutils_mkdir(const char* path, int mode);

#ifdef __cplusplus
}
#endif

#endif
