/* Directory walker. */
#ifndef DIRWALK_H
#define DIRWALK_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void* dirwalk_t;

/* recursive: descend into subdirectories. with_dirs: also report the
 * directories themselves. Null when the path can't be opened. */
dirwalk_t dirwalk_create(const char* path, int recursive, int with_dirs);
/* The next entry's full path, null at the end, in name order. Sets *is_dir
 * to 1 for a directory (a symbolic link is not one), else 0. The text is
 * valid until the next read. */
const char* dirwalk_read(dirwalk_t walk, int* is_dir);
void dirwalk_destroy(dirwalk_t walk);

#ifdef __cplusplus
}
#endif

#endif
