#define WL_LOG_SOURCE "config"

#include "config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "dirutils.h"
#include "host_json.h"
#include "ini_file.h"
#include "kem_ipc.h"
#include "orv_xmsg.h"
#include "whitelist_impl.h"
#include "wl_log.h"

namespace {
constexpr unsigned int kCfgRequestCmd = 1004;
constexpr unsigned int kCfgNotifyCmd = 1002;
constexpr int kCfgReplyWait = 10;
constexpr const char* kModuleType = "white_list_module";

struct IniDeleter {
    void operator()(void* ini) const { ini_file_free(ini); }
};
using IniFile = std::unique_ptr<void, IniDeleter>;

struct XmsgDeleter {
    void operator()(void* msg) const { orv_xmsg_release(msg); }
};
using Xmsg = std::unique_ptr<void, XmsgDeleter>;

// Values are read as unsigned with any base and then used as signed 32-bit
// numbers: a missing key reads as 0.
int ini_number(ini_handle_t ini, const char* key) {
    const char* text = ini_file_get(ini, "port", key);
    if (text == nullptr) return 0;
    return static_cast<int>(std::strtoull(text, nullptr, 0));
}

void push_front(wl_list_head* head, wl_list_head* link) {
    link->next = head->next;
    link->prev = head;
    head->next->prev = link;
    head->next = link;
}

void apply_switch(const cJSON* element) {
    const cJSON* type = cJSON_GetObjectItem(element, "module_type");
    if (!cJSON_IsString(type) || std::strcmp(type->valuestring, kModuleType) != 0) {
        WL_LOG(LOG_LVL_INFO, "skip module %s", cJSON_IsString(type) ? type->valuestring : "(none)");
        return;
    }
    const cJSON* status = cJSON_GetObjectItem(element, "switch_status");
    if (!cJSON_IsNumber(status)) return;
    if (status->valueint == 1) {
        init_whitelist_timer(&g_whitelist_context);
        init_whitelist_rasp_timer(&g_whitelist_context);
    } else {
        uninit_whitelist_timer(&g_whitelist_context);
        uninit_whitelist_rasp_timer(&g_whitelist_context);
    }
}
}  // namespace

int whitelist_load_config(WhitelistContext* context) {
    wl_list_head* head = &context->port_filter_list;
    head->next = head;
    head->prev = head;

    char path[1024] = {};
    dirutils_path_transform("@/../config/whitelist_port.cfg", path, sizeof path);
    IniFile ini(ini_file_load(path));
    if (!ini) {
        WL_LOG(LOG_LVL_ERROR, "load config failed\n");
        return -1;
    }
    int count = ini_number(ini.get(), "count");
    for (int index = 0; index < count; ++index) {
        char key[32];
        std::snprintf(key, sizeof key, "port_%d", index);
        int port = ini_number(ini.get(), key);
        if (port <= 0) continue;
        // The nodes belong to the context's list until whitelist_unload_config.
        auto* node = static_cast<port_filter_node*>(std::calloc(1, sizeof(port_filter_node)));
        if (node == nullptr) {
            WL_LOG(LOG_LVL_ERROR, "malloc fail");
            continue;
        }
        node->port = port;
        push_front(head, &node->link);
    }
    return 0;
}

void whitelist_unload_config(WhitelistContext* context) {
    wl_list_head* head = &context->port_filter_list;
    // A context whose load never ran has null links.
    if (head->next == nullptr || head->prev == nullptr) return;
    for (wl_list_head* link = head->next; link != nullptr && link != head;) {
        wl_list_head* next = link->next;
        std::free(reinterpret_cast<port_filter_node*>(link));
        link = next;
    }
    // Emptied rather than left dangling, so a second unload frees nothing twice.
    head->next = head;
    head->prev = head;
}

void req_whitelist_conf_from_cfg(WhitelistContext* context) {
    Xmsg msg(orv_xmsg_new("module_switch"));
    if (!msg) {
        WL_LOG(LOG_LVL_WARN, "create xmsg network failed.");
        return;
    }
    if (orv_xmsg_add(msg.get(), "module", 6, "module_switch", 13) != 0) {
        WL_LOG(LOG_LVL_WARN, "add field module failed.");
        return;
    }
    int size = orv_xmsg_pack_size(msg.get());
    std::vector<unsigned char> buffer;
    try {
        if (size <= 0) throw std::bad_alloc();
        buffer.resize(static_cast<std::size_t>(size));
    } catch (const std::bad_alloc&) {
        WL_LOG(LOG_LVL_WARN, "alloc memory failed.");
        return;
    }
    if (orv_xmsg_pack(msg.get(), buffer.data(), buffer.size()) < 0) {
        WL_LOG(LOG_LVL_WARN, "xmsg pack failed.");
        return;
    }
    kem_ipc_make_request(context->cfg_ipc, context->cfg_addr, kCfgRequestCmd, buffer.data(),
                         static_cast<unsigned int>(buffer.size()), whitelist_cfg_reply_fn, nullptr, kCfgReplyWait);
}

void whitelist_cfg_update(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void* data, unsigned int size,
                          void* user) {
    if (user == nullptr) {
        WL_LOG(LOG_LVL_ERROR, "user_data is NULL, cfg_update failed.");
        return;
    }
    WL_LOG(LOG_LVL_DETAIL, "ipc on msg recv, cmd= %u, size= %u", cmd, size);
    // The notification only prompts a fresh request; its content is not read.
    if (cmd == kCfgNotifyCmd && data != nullptr && size != 0) {
        WL_LOG(LOG_LVL_INFO, "cfg_center notify me to update config.");
        req_whitelist_conf_from_cfg(static_cast<WhitelistContext*>(user));
        return;
    }
    WL_LOG(LOG_LVL_INFO, "error param, do not to update config.");
}

void whitelist_cfg_reply_fn(int status, unsigned int cmd, const void* data, unsigned int size) {
    if (status < 0 || data == nullptr) {
        WL_LOG(LOG_LVL_INFO, "get conf from cfg centre failed, res: %d.", status);
        return;
    }
    // The reply is not terminated.
    std::string text;
    try {
        text.assign(static_cast<const char*>(data), size);
    } catch (const std::bad_alloc&) {
        WL_LOG(LOG_LVL_ERROR, "malloc req_msg space failed, size[%llu].", static_cast<unsigned long long>(size) + 1);
        return;
    }
    WL_LOG(LOG_LVL_INFO, "recv cfg cmd: %d. data %s", static_cast<int>(cmd), text.c_str());

    JsonTree root(cJSON_Parse(text.c_str()));
    if (!cJSON_IsArray(root.get())) {
        WL_LOG(LOG_LVL_ERROR, "parse data failed");
        return;
    }
    // Every element naming this module acts: the last one wins.
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, root.get()) {
        if (cJSON_IsObject(element)) apply_switch(element);
    }
}
