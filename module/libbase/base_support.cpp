#define WL_LOG_SOURCE "base"
#include "base_support.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include "dirutils.h"

std::string engine_resolve_path(const char* pattern) {
    char buffer[kEnginePathSize] = {0};
    dirutils_path_transform(pattern, buffer, sizeof(buffer));
    return buffer;
}

void engine_start_thread(orv_thread_t* thread, orv_thread_fn fn) {
    orv_thread_start(thread, fn, nullptr, kEngineThreadStackSize);
}

void engine_set_thread_name(const char* name) { prctl(PR_SET_NAME, name, 0, 0, 0); }

bool engine_collect_local_ips(std::set<std::string>& ips, std::vector<std::string>& seen) {
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return false;
    }
    for (struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        char text[INET_ADDRSTRLEN] = {0};
        const struct sockaddr_in* address = reinterpret_cast<const struct sockaddr_in*>(entry->ifa_addr);
        if (inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text)) == nullptr) {
            continue;
        }
        seen.push_back(text);
        ips.insert(text);
    }
    freeifaddrs(list);
    return true;
}
