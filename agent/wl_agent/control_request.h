// Requests on the agent's control socket: one JSON object per line, e.g.
//   {"cmd":"status"}  {"cmd":"models"}  {"cmd":"model","name":"web","engine":"host"}
//   {"cmd":"alarms","model":"web","kind":"process","since":1700000000,"after":12,"limit":100}
//   {"cmd":"alarm","id":"1700000000000123"}  {"cmd":"module","on":false}
#ifndef WL_AGENT_CONTROL_REQUEST_H
#define WL_AGENT_CONTROL_REQUEST_H

#include <string>

#include "report_ledger.h"

namespace wlagent {

constexpr size_t kMaxControlRequest = 64 * 1024;

struct ControlRequest {
    enum class Kind { Status, Models, Model, Alarms, Alarm, Module };
    Kind kind = Kind::Status;
    std::string engine;  // "", "host" or "app"
    std::string name;
    std::string id;
    AlarmFilter filter;
    bool on = false;
};

// Empty on success, else a sentence saying what is wrong with the request.
std::string parseControlRequest(const std::string& text, ControlRequest& out);

}  // namespace wlagent

#endif
