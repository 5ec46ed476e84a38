// Where the agent puts what the module sends to the manager: a durable
// spool (var/spool/manager/reports.jsonl, one envelope a line) that
// wl-forward delivers to the configured sinks, and copies of origin-log
// files under var/spool/uploads/ with a manifest beside them. Writes go to
// local files only, so a sink that is down never slows the module.
#ifndef WL_AGENT_REPORT_SPOOL_H
#define WL_AGENT_REPORT_SPOOL_H

#include <mutex>
#include <string>
#include <vector>

#include "forward_settings.h"
#include "spool_writer.h"

namespace wlagent {

class ReportSpool {
public:
    ReportSpool(const std::string& root, bool printWhole, const wlforward::ForwardSettings& settings);
    // Empty, or what keeps the spool from working.
    std::string open();
    void setHostUuid(const std::string& uuid) { m_hostUuid = uuid; }

    // Appends one report (a JSON text) and prints a line about it. Returns 0,
    // or -1 if it could not be stored (counted as dropped).
    int add(const char* text, int length);
    // Copies an uploaded file under var/spool/uploads/kind<N>/ and names it
    // in the manifest. 0, or -1 (counted as dropped).
    int addFile(int kind, const char* path);

    uint64_t droppedReports();
    uint64_t droppedFiles();

private:
    void makeRoomForUpload(uint64_t size);
    void tell(wlspool::SpoolWriter& writer);

    std::mutex m_mutex;
    std::string m_root;
    bool m_printWhole;
    uint64_t m_maxUploadBytes;
    std::vector<std::string> m_fileSinks;
    std::string m_hostUuid;
    wlspool::SpoolWriter m_reports;
    wlspool::SpoolWriter m_uploads;
    unsigned long m_count = 0;
};

}  // namespace wlagent

#endif
