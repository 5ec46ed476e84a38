#include "portable/proc_info.h"

#include <dirent.h>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <memory>

#include "wl_unique_fd.h"

namespace wlc::portable {
namespace {

constexpr std::size_t kStatusMax = 8192;
constexpr std::size_t kCmdlineMax = 16384;
constexpr std::size_t kChildrenMax = 65536;

template <typename T>
std::optional<T> parseNumber(std::string_view text) {
    T value{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end == text.data()) return std::nullopt;
    return value;
}

std::string_view skipBlanks(std::string_view text) {
    std::size_t at = text.find_first_not_of(" \t");
    return at == std::string_view::npos ? std::string_view() : text.substr(at);
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

std::string procPath(int32_t pid, const char* leaf) { return "/proc/" + std::to_string(pid) + "/" + leaf; }

}  // namespace

uint64_t realtimeNs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

std::optional<int32_t> parseStatParent(std::string_view stat) {
    std::size_t close = stat.rfind(')');
    if (close == std::string_view::npos) return std::nullopt;
    std::string_view rest = skipBlanks(stat.substr(close + 1));
    std::size_t stateEnd = rest.find(' ');
    if (stateEnd == std::string_view::npos) return std::nullopt;
    rest = skipBlanks(rest.substr(stateEnd));
    return parseNumber<int32_t>(rest.substr(0, rest.find(' ')));
}

std::optional<uint32_t> parseStatusUid(std::string_view status) {
    constexpr std::string_view kKey = "Uid:";
    std::size_t at = 0;
    while (at < status.size()) {
        std::size_t end = status.find('\n', at);
        if (end == std::string_view::npos) end = status.size();
        std::string_view line = status.substr(at, end - at);
        if (line.substr(0, kKey.size()) == kKey) {
            std::string_view value = skipBlanks(line.substr(kKey.size()));
            return parseNumber<uint32_t>(value.substr(0, value.find_first_of(" \t")));
        }
        at = end + 1;
    }
    return std::nullopt;
}

std::string cmdlineText(std::string_view raw) {
    while (!raw.empty() && raw.back() == '\0') raw.remove_suffix(1);
    std::string text(raw);
    for (char& c : text) {
        if (c == '\0') c = ' ';
    }
    return text;
}

std::optional<uint64_t> parseSocketInode(std::string_view link) {
    constexpr std::string_view kPrefix = "socket:[";
    if (link.size() <= kPrefix.size() + 1 || link.substr(0, kPrefix.size()) != kPrefix || link.back() != ']') {
        return std::nullopt;
    }
    std::string_view digits = link.substr(kPrefix.size(), link.size() - kPrefix.size() - 1);
    auto inode = parseNumber<uint64_t>(digits);
    if (!inode || std::to_string(*inode).size() != digits.size()) return std::nullopt;
    return inode;
}

std::vector<int32_t> parsePidList(std::string_view text) {
    std::vector<int32_t> pids;
    while (!text.empty()) {
        std::size_t start = text.find_first_not_of(" \n\t");
        if (start == std::string_view::npos) break;
        text = text.substr(start);
        std::size_t end = text.find_first_of(" \n\t");
        auto pid = parseNumber<int32_t>(text.substr(0, end));
        if (pid && *pid > 0) pids.push_back(*pid);
        if (end == std::string_view::npos) break;
        text = text.substr(end);
    }
    return pids;
}

std::string readFileCapped(const std::string& path, std::size_t max) {
    wl::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return {};
    std::string data(max, '\0');
    std::size_t used = 0;
    while (used < max) {
        ssize_t got = ::read(fd.get(), data.data() + used, max - used);
        if (got <= 0) break;
        used += static_cast<std::size_t>(got);
    }
    data.resize(used);
    return data;
}

std::string readLinkText(const std::string& path) {
    char target[4096];
    ssize_t length = ::readlink(path.c_str(), target, sizeof(target));
    if (length <= 0 || static_cast<std::size_t>(length) >= sizeof(target)) return {};
    return std::string(target, static_cast<std::size_t>(length));
}

ProcessFacts readProcessFacts(int32_t pid) {
    ProcessFacts facts;
    facts.ppid = parseStatParent(readFileCapped(procPath(pid, "stat"), kStatusMax)).value_or(0);
    facts.uid = parseStatusUid(readFileCapped(procPath(pid, "status"), kStatusMax)).value_or(UINT32_MAX);
    facts.exe = readLinkText(procPath(pid, "exe"));
    facts.cmdline = cmdlineText(readFileCapped(procPath(pid, "cmdline"), kCmdlineMax));
    return facts;
}

uint32_t readProcessUid(int32_t pid) {
    return parseStatusUid(readFileCapped(procPath(pid, "status"), kStatusMax)).value_or(UINT32_MAX);
}

std::vector<int32_t> readChildren(int32_t pid) {
    std::vector<int32_t> children;
    std::string taskDir = procPath(pid, "task");
    std::unique_ptr<DIR, DirCloser> dir(opendir(taskDir.c_str()));
    if (!dir) return children;
    while (dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] == '.') continue;
        auto some = parsePidList(readFileCapped(taskDir + "/" + entry->d_name + "/children", kChildrenMax));
        children.insert(children.end(), some.begin(), some.end());
    }
    return children;
}

}  // namespace wlc::portable
