// The agent's file-upload service, _add_upload_file, found by symbol.
#ifndef WL_PLUGINS_FILE_UPLOAD_UTILS_H
#define WL_PLUGINS_FILE_UPLOAD_UTILS_H

typedef int (*add_upload_file_fn)(int kind, const char* path);

// File kinds: 3 origin log of the base engine, 4 of the runtime-application engine.
enum { WL_UPLOAD_KIND_ORIGIN_LOG = 3, WL_UPLOAD_KIND_RASP_ORIGIN_LOG = 4 };

#endif
