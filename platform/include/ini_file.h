/* INI files: sections of "key=value" lines, order kept. */
#ifndef INI_FILE_H
#define INI_FILE_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void* ini_handle_t;

/* A null path gives a new empty handle; a file that can't be read gives null. */
ini_handle_t ini_file_load(const char* path);
/* The value's text, owned by the handle; null when absent. A key written
 * with an empty value reads back as the empty text. */
const char* ini_file_get(ini_handle_t ini, const char* section, const char* key);
/* Creates section and key as needed. 0 on success. */
int ini_file_set(ini_handle_t ini, const char* section, const char* key, const char* value);
/* flags: unused. 0 on success. */
int ini_file_save(ini_handle_t ini, const char* path, int flags);
void ini_file_free(ini_handle_t ini);

#ifdef __cplusplus
}
#endif

#endif
