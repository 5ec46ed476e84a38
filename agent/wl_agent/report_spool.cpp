#include "report_spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>

#include <cjson/cJSON.h>

#include "atomic_file.h"
#include "dirutils.h"
#include "spool_reader.h"

namespace wlagent {
namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// The envelope's "type" key and the payload's size, for the summary line.
std::string describe(const std::string& text) {
    Json root(cJSON_Parse(text.c_str()), cJSON_Delete);
    if (!root) return "unparsable report";
    const cJSON* type = cJSON_GetObjectItemCaseSensitive(root.get(), "type");
    if (!cJSON_IsString(type)) return "report without type";
    std::string out = std::string("type=") + type->valuestring;
    const cJSON* payload = cJSON_GetObjectItemCaseSensitive(root.get(), type->valuestring);
    if (cJSON_IsArray(payload)) out += " entries=" + std::to_string(cJSON_GetArraySize(payload));
    return out;
}

// The least position among the sinks: what is at or past it is unsent.
wlspool::SpoolWriter::Floor floorOf(const wlspool::Stream& stream, std::vector<std::string> sinks) {
    return [stream, sinks]() -> std::optional<uint64_t> {
        if (sinks.empty()) return std::nullopt;
        uint64_t low = UINT64_MAX;
        for (const std::string& sink : sinks) low = std::min(low, wlspool::readCursor(stream, sink));
        return low;
    };
}

struct Stored {
    std::string relative;  // kind<N>/<name>
    uint64_t size;
    time_t mtime;
};

std::vector<Stored> storedUploads(const std::string& dir) {
    std::vector<Stored> out;
    std::unique_ptr<DIR, int (*)(DIR*)> top(::opendir(dir.c_str()), ::closedir);
    if (!top) return out;
    while (const dirent* kind = ::readdir(top.get())) {
        if (std::strncmp(kind->d_name, "kind", 4) != 0) continue;
        std::string sub = dir + "/" + kind->d_name;
        std::unique_ptr<DIR, int (*)(DIR*)> files(::opendir(sub.c_str()), ::closedir);
        if (!files) continue;
        while (const dirent* e = ::readdir(files.get())) {
            struct stat st;
            if (e->d_name[0] == '.' || ::stat((sub + "/" + e->d_name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
                continue;
            }
            out.push_back(
                Stored{std::string(kind->d_name) + "/" + e->d_name, static_cast<uint64_t>(st.st_size), st.st_mtime});
        }
    }
    std::sort(out.begin(), out.end(), [](const Stored& a, const Stored& b) { return a.mtime < b.mtime; });
    return out;
}

}  // namespace

ReportSpool::ReportSpool(const std::string& root, bool printWhole, const wlforward::ForwardSettings& settings)
    : m_root(root),
      m_printWhole(printWhole),
      m_maxUploadBytes(settings.maxUploadBytes),
      m_fileSinks(wlforward::fileSinks(settings)),
      m_reports(wlspool::reportStream(root), settings.reports,
                floorOf(wlspool::reportStream(root), wlforward::enabledSinks(settings))),
      m_uploads(wlspool::uploadStream(root), wlspool::SpoolLimits{1u << 20, 4u << 20, settings.reports.sync},
                floorOf(wlspool::uploadStream(root), wlforward::fileSinks(settings))) {}

std::string ReportSpool::open() {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string error;
    if (!m_reports.open(error)) return error;
    tell(m_reports);
    if (!m_uploads.open(error)) return error;
    tell(m_uploads);
    return "";
}

void ReportSpool::tell(wlspool::SpoolWriter& writer) {
    for (const std::string& notice : writer.takeNotices()) std::printf("wl-agent: %s\n", notice.c_str());
    std::fflush(stdout);
}

int ReportSpool::add(const char* text, int length) {
    if (!text || length <= 0) return -1;
    std::string report(text, static_cast<size_t>(length));
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string error;
    bool stored = m_reports.append(report, error);
    tell(m_reports);
    ++m_count;
    if (!stored) {
        std::printf("wl-agent: report %lu NOT stored: %s\n", m_count, error.c_str());
    } else {
        std::printf("wl-agent: report %lu to the manager: %s (%d bytes)\n", m_count, describe(report).c_str(), length);
        if (m_printWhole) std::printf("%s\n", report.c_str());
    }
    std::fflush(stdout);
    return stored ? 0 : -1;
}

void ReportSpool::makeRoomForUpload(uint64_t size) {
    std::string dir = m_root + "/var/spool/uploads";
    std::vector<Stored> stored = storedUploads(dir);
    uint64_t used = 0;
    for (const Stored& s : stored) used += s.size;
    if (used + size <= m_maxUploadBytes) return;

    // Files named in the manifest past the least sink position are unsent.
    std::set<std::string> unsent;
    wlspool::SpoolReader reader(wlspool::uploadStream(m_root));
    std::optional<uint64_t> floor = floorOf(reader.stream(), m_fileSinks)();
    for (uint64_t at = floor.value_or(0); floor;) {
        wlspool::Batch batch;
        std::string error;
        if (!reader.read(at, 1000, 1u << 20, batch, error) || batch.lines.empty()) break;
        for (const wlspool::Line& line : batch.lines) {
            Json entry(cJSON_Parse(line.text.c_str()), cJSON_Delete);
            const cJSON* file = cJSON_GetObjectItemCaseSensitive(entry.get(), "file");
            if (cJSON_IsString(file)) unsent.insert(file->valuestring);
        }
        at = batch.lines.back().end;
    }
    for (const Stored& s : stored) {
        if (used + size <= m_maxUploadBytes) break;
        if (std::remove((dir + "/" + s.relative).c_str()) != 0) continue;
        used -= s.size;
        if (unsent.count(s.relative)) {
            m_uploads.countDropped(1, s.size, "max_upload_bytes reached: removed unsent " + s.relative);
        }
    }
}

int ReportSpool::addFile(int kind, const char* path) {
    if (!path) return -1;
    const char* base = std::strrchr(path, '/');
    std::string name = base ? base + 1 : path;
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string error;
    struct stat st;
    if (name.empty() || name[0] == '.' || kind < 0 || ::stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
        std::printf("wl-agent: upload of %s (kind %d) refused: not a regular file\n", path, kind);
        std::fflush(stdout);
        return -1;
    }
    uint64_t size = static_cast<uint64_t>(st.st_size);
    std::string relative = "kind" + std::to_string(kind) + "/" + name;
    std::string dir = m_root + "/var/spool/uploads/kind" + std::to_string(kind);
    if (size > m_maxUploadBytes) {
        m_uploads.countDropped(1, size, relative + " is larger than max_upload_bytes");
        tell(m_uploads);
        return -1;
    }
    makeRoomForUpload(size);
    if (dirutils_mkdir(dir.c_str(), 0750) != 0 ||
        !wlspool::copyFileAtomic(path, m_root + "/var/spool/uploads/" + relative, size, error)) {
        m_uploads.countDropped(1, size, error.empty() ? "cannot create " + dir : error);
        tell(m_uploads);
        return -1;
    }
    Json entry(cJSON_CreateObject(), cJSON_Delete);
    cJSON_AddNumberToObject(entry.get(), "kind", kind);
    cJSON_AddStringToObject(entry.get(), "file", relative.c_str());
    cJSON_AddStringToObject(entry.get(), "name", name.c_str());
    cJSON_AddNumberToObject(entry.get(), "bytes", static_cast<double>(size));
    cJSON_AddStringToObject(entry.get(), "host_uuid", m_hostUuid.c_str());
    cJSON_AddNumberToObject(entry.get(), "time", static_cast<double>(std::time(nullptr)));
    std::unique_ptr<char, decltype(&cJSON_free)> line(cJSON_PrintUnformatted(entry.get()), cJSON_free);
    bool named = line && m_uploads.append(line.get(), error);
    tell(m_uploads);
    std::printf("wl-agent: file queued for upload (kind %d): %s%s\n", kind, path,
                named ? "" : (" NOT named: " + error).c_str());
    std::fflush(stdout);
    return named ? 0 : -1;
}

uint64_t ReportSpool::droppedReports() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_reports.dropped();
}

uint64_t ReportSpool::droppedFiles() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_uploads.dropped();
}

}  // namespace wlagent
