// The task channel's JSON commands, as the manager would send them.
#ifndef WL_WLCTL_TASK_COMMANDS_H
#define WL_WLCTL_TASK_COMMANDS_H

#include <string>
#include <vector>

namespace wlctl {

// JSON string literal of text, quotes included.
std::string jsonQuote(const std::string& text);

// rasp: true for the runtime-application engine (codes + 100).
std::string startCommand(bool rasp, const std::string& name, const std::string& path,
                         const std::vector<unsigned>& ports, long studyTime);
std::string queryCommand(bool rasp, const std::vector<std::string>& names);
std::string studyCommand(bool rasp, bool relearn, long studyTime, const std::vector<std::string>& names);
std::string switchCommand(bool rasp, bool on, const std::vector<std::string>& names);
std::string deleteCommand(bool rasp, const std::vector<std::string>& names);
std::string uploadLogsCommand(bool rasp);
// The alarm as reported, handed back so that its model learns it.
std::string feedbackCommand(const std::string& alarmJson);

// "80,443" into ports 1..65535; false on anything else.
bool parsePorts(const std::string& text, std::vector<unsigned>& ports);
// A learning period: a whole number 0..65535 (the model library's units).
bool parseStudyTime(const std::string& text, long& out);

}  // namespace wlctl

#endif
