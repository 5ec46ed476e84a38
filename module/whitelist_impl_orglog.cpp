#define WL_LOG_SOURCE "whitelist_impl"

#include <memory>

#include "dirutils.h"
#include "dir_walk.h"
#include "file_upload_utils.h"
#include "whitelist_api_state.h"
#include "whitelist_impl.h"
#include "whitelist_upload.h"
#include "wl_log.h"

add_upload_file_fn g_add_upload_file = nullptr;

namespace {

int upload_directory(const char* directory, int kind) {
    char path[2048] = {0};
    dirutils_path_transform(directory, path, sizeof(path));
    DirWalk walk = open_dir_walk(path);
    if (!walk) {
        WL_LOG(LOG_LVL_ERROR, "create walk dir handle failed.");
        return (int)WL_ERR_FAILED;
    }
    int is_dir = 0;
    while (const char* entry = dirwalk_read(walk.get(), &is_dir)) {
        WL_LOG(LOG_LVL_INFO, "start upload %sfile %s", kind == WL_UPLOAD_KIND_RASP_ORIGIN_LOG ? "rasp " : "", entry);
        if (add_upload_file_fn add_upload_file = add_upload_file_symbol(g_add_upload_file))
            add_upload_file(kind, entry);
    }
    WL_LOG(LOG_LVL_DETAIL, "scan end");
    return WL_TASK_OK;
}

}  // namespace

extern "C" {

int whitelist_upload_org_log(cJSON* root, int unused) {
    return upload_directory("@/../var/base/originLog/", WL_UPLOAD_KIND_ORIGIN_LOG);
}

int whitelist_upload_rasp_org_log(cJSON* root, int unused) {
    return upload_directory("@/../var/base/raspOriginLog/", WL_UPLOAD_KIND_RASP_ORIGIN_LOG);
}
}
