/* Files that must survive a crash whole: either the old content or the new
 * one is found afterwards, never a mix and never a truncated file. */
#ifndef ATOMIC_FILE_H
#define ATOMIC_FILE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes data to "<path>.tmp" in the same directory, syncs it, renames it
 * over path and syncs the directory. mode: permission bits of the file,
 * applied whatever the umask. 0 on success; -1 with errno set, the old file
 * untouched and no temporary file left behind. */
int file_write_atomic(const char* path, const void* data, size_t size, unsigned int mode);

/* Copies the regular file src to path the same way, streaming, so a large
 * file is never held in memory. *copied (may be NULL) receives the bytes
 * copied. 0 on success; -1 with errno set (EINVAL when src is not a regular
 * file), the old file untouched and no temporary file left behind. */
int file_copy_atomic(const char* src, const char* path, unsigned int mode, unsigned long long* copied);

/* Syncs the directory that holds path, so that a rename or a new entry in it
 * survives a crash. 0 on success, -1 with errno set. */
int file_sync_parent_dir(const char* path);

#ifdef __cplusplus
}
#endif

#endif
