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

/* Syncs the directory that holds path, so that a rename or a new entry in it
 * survives a crash. 0 on success, -1 with errno set. */
int file_sync_parent_dir(const char* path);

#ifdef __cplusplus
}
#endif

#endif
