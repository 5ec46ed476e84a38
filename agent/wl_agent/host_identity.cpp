#include "host_identity.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <memory>

namespace wlagent {

HostIdentity readHostIdentity() {
    HostIdentity id;
    std::ifstream machineId("/etc/machine-id");
    std::getline(machineId, id.uuid);
    if (id.uuid.empty()) {
        char name[256] = {0};
        ::gethostname(name, sizeof name - 1);
        id.uuid = name;
    }

    ifaddrs* raw = nullptr;
    if (::getifaddrs(&raw) == 0) {
        std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(raw, ::freeifaddrs);
        for (ifaddrs* it = raw; it; it = it->ifa_next) {
            if (!it->ifa_addr || it->ifa_addr->sa_family != AF_INET) continue;
            char text[INET_ADDRSTRLEN] = {0};
            ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(it->ifa_addr)->sin_addr, text, sizeof text);
            if (!id.ipList.empty()) id.ipList += ",";
            id.ipList += text;
            if (id.hostIp.empty() && std::string(text).rfind("127.", 0) != 0) id.hostIp = text;
        }
    }
    if (id.hostIp.empty()) id.hostIp = "127.0.0.1";
    return id;
}

std::string currentTimeText() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace wlagent
