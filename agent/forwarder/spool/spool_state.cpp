#include "spool_state.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>

#include <cjson/cJSON.h>

#include "atomic_file.h"
#include "dirutils.h"
#include "wl_unique_fd.h"

namespace wlspool {
namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// Offsets and counts are kept below 2^53, where a JSON number is exact.
constexpr double kMaxExact = 9007199254740992.0;

bool asCount(const cJSON* item, uint64_t& out) {
    if (!cJSON_IsNumber(item)) return false;
    double v = item->valuedouble;
    if (!(v >= 0 && v < kMaxExact) || std::floor(v) != v) return false;
    out = static_cast<uint64_t>(v);
    return true;
}

cJSON* count(uint64_t v) { return cJSON_CreateNumber(static_cast<double>(v)); }

std::string print(cJSON* root) {
    std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(root), cJSON_free);
    return text ? std::string(text.get()) + "\n" : std::string();
}

// A file name inside the stream's directory: no separators, no dot names.
bool plainName(const char* name) {
    return name[0] != '\0' && std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
           std::strcmp(name, "..") != 0 && std::strlen(name) < 256;
}

}  // namespace

Stream reportStream(const std::string& root) { return Stream{root + "/var/spool/manager", "reports.jsonl"}; }
Stream uploadStream(const std::string& root) { return Stream{root + "/var/spool/uploads", "uploads.jsonl"}; }

std::string formatState(const SpoolState& state) {
    Json root(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddItemToObject(root.get(), "generation", count(state.generation));
    cJSON* files = cJSON_AddArrayToObject(root.get(), "files");
    for (const SpoolFile& f : state.files) {
        cJSON* item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "name", f.name.c_str());
        // Inode numbers may pass 2^53: kept as text.
        cJSON_AddStringToObject(item, "ino", std::to_string(f.ino).c_str());
        cJSON_AddItemToObject(item, "start", count(f.start));
        cJSON_AddItemToArray(files, item);
    }
    cJSON_AddItemToObject(root.get(), "dropped", count(state.dropped));
    cJSON_AddItemToObject(root.get(), "dropped_bytes", count(state.droppedBytes));
    return print(root.get());
}

bool parseState(const std::string& text, SpoolState& out, std::string& error) {
    Json root(cJSON_ParseWithLength(text.data(), text.size()), cJSON_Delete);
    if (!cJSON_IsObject(root.get())) {
        error = "not a JSON object";
        return false;
    }
    SpoolState state;
    if (!asCount(cJSON_GetObjectItemCaseSensitive(root.get(), "generation"), state.generation) ||
        !asCount(cJSON_GetObjectItemCaseSensitive(root.get(), "dropped"), state.dropped) ||
        !asCount(cJSON_GetObjectItemCaseSensitive(root.get(), "dropped_bytes"), state.droppedBytes)) {
        error = "generation, dropped and dropped_bytes must be counts";
        return false;
    }
    const cJSON* files = cJSON_GetObjectItemCaseSensitive(root.get(), "files");
    if (!cJSON_IsArray(files)) {
        error = "files must be an array";
        return false;
    }
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, files) {
        const cJSON* name = cJSON_GetObjectItemCaseSensitive(item, "name");
        const cJSON* ino = cJSON_GetObjectItemCaseSensitive(item, "ino");
        SpoolFile f;
        if (!cJSON_IsString(name) || !plainName(name->valuestring) || !cJSON_IsString(ino) ||
            !asCount(cJSON_GetObjectItemCaseSensitive(item, "start"), f.start)) {
            error = "each file needs a plain name, an ino and a start";
            return false;
        }
        char* endp = nullptr;
        errno = 0;
        unsigned long long v = std::strtoull(ino->valuestring, &endp, 10);
        if (errno != 0 || endp == ino->valuestring || *endp != '\0' || ino->valuestring[0] == '-') {
            error = "ino must be a decimal number";
            return false;
        }
        f.name = name->valuestring;
        f.ino = v;
        if (!state.files.empty() && f.start < state.files.back().start) {
            error = "file starts must not decrease";
            return false;
        }
        state.files.push_back(f);
    }
    out = std::move(state);
    return true;
}

std::string formatCursor(uint64_t offset) {
    Json root(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddItemToObject(root.get(), "offset", count(offset));
    return print(root.get());
}

bool parseCursor(const std::string& text, uint64_t& offset) {
    Json root(cJSON_ParseWithLength(text.data(), text.size()), cJSON_Delete);
    return cJSON_IsObject(root.get()) && asCount(cJSON_GetObjectItemCaseSensitive(root.get(), "offset"), offset);
}

bool readSmallFile(const std::string& path, std::string& out, size_t limit) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::string text;
    char buf[4096];
    bool ok = true;
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || text.size() + static_cast<size_t>(n) > limit) {
            ok = false;
            break;
        }
        if (n == 0) break;
        text.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    if (ok) out = std::move(text);
    return ok;
}

bool writeFileAtomic(const std::string& path, const std::string& text, std::string& error) {
    if (file_write_atomic(path.c_str(), text.data(), text.size(), 0640) != 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

uint64_t readCursor(const Stream& stream, const std::string& sink) {
    std::string text;
    uint64_t offset = 0;
    if (readSmallFile(stream.cursorPath(sink), text, 4096) && parseCursor(text, offset)) return offset;
    return 0;
}

uint64_t highestCursor(const Stream& stream) {
    uint64_t high = 0;
    DIR* dir = ::opendir(stream.cursorDir().c_str());
    if (!dir) return 0;
    while (const dirent* e = ::readdir(dir)) {
        if (e->d_name[0] != '.') high = std::max(high, readCursor(stream, e->d_name));
    }
    ::closedir(dir);
    return high;
}

bool writeCursor(const Stream& stream, const std::string& sink, uint64_t offset, std::string& error) {
    if (dirutils_mkdir(stream.cursorDir().c_str(), 0750) != 0) {
        error = "cannot create " + stream.cursorDir();
        return false;
    }
    return writeFileAtomic(stream.cursorPath(sink), formatCursor(offset), error);
}

// Copies src to dst whole or not at all.
bool copyFileAtomic(const std::string& src, const std::string& dst, uint64_t& size, std::string& error) {
    unsigned long long copied = 0;
    size = 0;
    if (file_copy_atomic(src.c_str(), dst.c_str(), 0640, &copied) != 0) {
        error = "cannot copy " + src + " to " + dst + ": " +
                (errno == EINVAL ? std::string("not a regular file") : std::strerror(errno));
        return false;
    }
    size = copied;
    return true;
}

}  // namespace wlspool
