#include "agent_doubles.h"

#include <cjson/cJSON.h>
#include <dlfcn.h>

#include <deque>
#include <memory>

#include "agent_symbols.h"
#include "asset_collection.h"
#include "model_records.h"
#include "module_fakes.h"
#include "whitelist.h"

namespace models_double {
namespace {

std::map<int, std::string> g_assets;
bool g_symbols_missing = false;
std::deque<std::unique_ptr<port_filter_node>> g_filter_nodes;

}  // namespace

void reset_agent() {
    g_assets.clear();
    module_fakes::reset();
    agent_symbols::reset();
    g_symbols_missing = false;
    wl_list_head* head = &g_whitelist_context.port_filter_list;
    head->next = head->prev = head;
    g_filter_nodes.clear();
}

void set_asset(int kind, const std::string& json) { g_assets[kind] = json; }
void set_symbols_missing(bool missing) { g_symbols_missing = missing; }

void add_filter_port(int port) {
    auto node = std::make_unique<port_filter_node>();
    node->port = port;
    wl_list_head* head = &g_whitelist_context.port_filter_list;
    node->link.next = head;
    node->link.prev = head->prev;
    head->prev->next = &node->link;
    head->prev = &node->link;
    g_filter_nodes.push_back(std::move(node));
}

}  // namespace models_double

using namespace models_double;

extern "C" {

int get_asset_result_v2(int kind, int max_age, cJSON** result, int flags) {
    auto found = g_assets.find(kind);
    if (found == g_assets.end()) return -1;
    *result = cJSON_Parse(found->second.c_str());
    return *result ? 0 : -1;
}

void* dll_get_addr_ex(void* handle, const char* name) {
    return g_symbols_missing ? nullptr : dlsym(handle ? handle : RTLD_DEFAULT, name);
}

void dll_close_ex(void*) {}
}
