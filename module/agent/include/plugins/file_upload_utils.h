// The agent's file-upload service, _add_upload_file, found by symbol.
#ifndef WL_PLUGINS_FILE_UPLOAD_UTILS_H
#define WL_PLUGINS_FILE_UPLOAD_UTILS_H

#include "agent_symbol.h"
#include "wl_log.h"

typedef int (*add_upload_file_fn)(int kind, const char* path);

// File kinds: 3 origin log of the base engine, 4 of the runtime-application engine.
enum { WL_UPLOAD_KIND_ORIGIN_LOG = 3, WL_UPLOAD_KIND_RASP_ORIGIN_LOG = 4 };

// _add_upload_file through the caller's cache slot; null after a logged miss.
inline add_upload_file_fn add_upload_file_symbol(add_upload_file_fn& slot) {
    return agent_symbol(slot, "_add_upload_file", [] {
        WL_LOG_AS("agent/include/plugins/file_upload_utils", LOG_LVL_ERROR, "load symbol _add_upload_file failed");
        dll_close_ex(nullptr);
    });
}

#endif
