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
/* Creates section and key as needed. 0 on success. A name or value that
 * would not read back as it is (blanks at either end, a line break, "]" in a
 * section, "=" in a key, a key that reads as a comment or header) is refused:
 * -1 with errno EINVAL, and the handle is left as it was. */
int ini_file_set(ini_handle_t ini, const char* section, const char* key, const char* value);
/* Replaces the file whole or not at all, crash-safe, mode 0640.
 * flags: unused. 0 on success, -1 with errno set. */
int ini_file_save(ini_handle_t ini, const char* path, int flags);
/* The name of the index-th section in file order (the unnamed section of keys
 * before any header is ""), owned by the handle; null past the last. */
const char* ini_file_section_name(ini_handle_t ini, int index);
void ini_file_free(ini_handle_t ini);

#ifdef __cplusplus
}
#endif

#endif
