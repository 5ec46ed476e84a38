#include "report_spool.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include <cjson/cJSON.h>

#include "dirutils.h"

namespace wlagent {
namespace {

// The envelope's "type" key and the payload's size, for the summary line.
std::string describe(const std::string& text) {
    std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root(cJSON_Parse(text.c_str()), cJSON_Delete);
    if (!root) return "unparsable report";
    const cJSON* type = cJSON_GetObjectItemCaseSensitive(root.get(), "type");
    if (!cJSON_IsString(type)) return "report without type";
    std::string out = std::string("type=") + type->valuestring;
    const cJSON* payload = cJSON_GetObjectItemCaseSensitive(root.get(), type->valuestring);
    if (cJSON_IsArray(payload)) out += " entries=" + std::to_string(cJSON_GetArraySize(payload));
    return out;
}

}  // namespace

ReportSpool::ReportSpool(const std::string& root, bool printWhole)
    : m_root(root), m_reports(root + "/var/spool/manager/reports.jsonl", std::ios::app), m_printWhole(printWhole) {}

int ReportSpool::add(const char* text, int length) {
    if (!text || length <= 0) return -1;
    std::string report(text, static_cast<size_t>(length));
    std::lock_guard<std::mutex> lock(m_mutex);
    m_reports << report << '\n';
    m_reports.flush();
    ++m_count;
    std::printf("wl-agent: report %lu to the manager: %s (%d bytes)\n", m_count, describe(report).c_str(), length);
    if (m_printWhole) std::printf("%s\n", report.c_str());
    std::fflush(stdout);
    return m_reports ? 0 : -1;
}

int ReportSpool::addFile(int kind, const char* path) {
    if (!path) return -1;
    std::string dir = m_root + "/var/spool/uploads/kind" + std::to_string(kind);
    if (dirutils_mkdir(dir.c_str(), 0755) != 0) return -1;
    const char* base = std::strrchr(path, '/');
    std::string target = dir + "/" + (base ? base + 1 : path);
    std::ifstream in(path, std::ios::binary);
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    if (!in || !out) return -1;
    out << in.rdbuf();
    std::lock_guard<std::mutex> lock(m_mutex);
    std::printf("wl-agent: file queued for upload (kind %d): %s\n", kind, path);
    std::fflush(stdout);
    return 0;
}

}  // namespace wlagent
