// Where the agent puts what the module sends to the manager: this host has no
// manager connection, so reports go to a spool file and a summary to stdout.
#ifndef WL_AGENT_REPORT_SPOOL_H
#define WL_AGENT_REPORT_SPOOL_H

#include <fstream>
#include <mutex>
#include <string>

namespace wlagent {

class ReportSpool {
public:
    ReportSpool(const std::string& root, bool printWhole);
    // Appends one report (a JSON text) and prints a line about it. Returns 0,
    // or -1 if it could not be stored.
    int add(const char* text, int length);
    // Copies an uploaded file under var/spool/uploads/kind<N>/.
    int addFile(int kind, const char* path);

private:
    std::mutex m_mutex;
    std::string m_root;
    std::ofstream m_reports;
    bool m_printWhole;
    unsigned long m_count = 0;
};

}  // namespace wlagent

#endif
