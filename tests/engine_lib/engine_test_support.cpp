#include "engine_test_support.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "transformer.h"

namespace enginetest {

std::unique_ptr<BaseInterface> makeBaseEngine() {
    return std::unique_ptr<BaseInterface>(BaseFactory().getBaseInterface());
}

std::unique_ptr<RaspInterface> makeRaspEngine() {
    return std::unique_ptr<RaspInterface>(RaspFactory().getRaspInterface());
}

std::unique_ptr<_USR_INPUT> command(int oprType, const std::string& name, unsigned short learnTime,
                                    unsigned short switchValue) {
    auto input = std::make_unique<_USR_INPUT>();
    input->oprType = oprType;
    input->modelName = name;
    input->learnTime = learnTime;
    input->switchValue = switchValue;
    return input;
}

std::unique_ptr<_USR_INPUT> startCommand(const std::string& name, unsigned short learnTime,
                                         const std::string& path, std::vector<unsigned long long> pids) {
    auto input = command(USR_OPR_INIT, name, learnTime);
    input->processMap[path].insert(pids.begin(), pids.end());
    return input;
}

std::unique_ptr<_BASE_EVENTINFO> blankEvent(unsigned eventType, unsigned long long pid, const std::string& actorPath) {
    auto event = std::make_unique<_BASE_EVENTINFO>();  // value-initialised: all zero
    event->event_type = static_cast<uint16_t>(eventType);
    event->event_time = 1700000000;
    event->process_info.process_id = pid;
    setText(event->process_info.process_path, actorPath);
    setText(event->process_info.process_cmd_line, actorPath + " --serve");
    setText(event->process_info.process_user_name, "svc");
    setText(event->process_info.process_md5, "0123456789abcdef0123456789abcdef");
    return event;
}

std::unique_ptr<_BASE_EVENTINFO> processCreation(unsigned long long parentPid, const std::string& childPath) {
    auto event = blankEvent(1, parentPid);
    auto& child = event->detail.process;
    child.process_id = parentPid + 1000;
    setText(child.process_path, childPath);
    setText(child.process_cmd_line, childPath + " -c true");
    setText(child.process_user_name, "svc");
    return event;
}

std::unique_ptr<_BASE_EVENTINFO> fileEvent(unsigned long long pid, const std::string& file, unsigned type) {
    auto event = blankEvent(type, pid);
    setText(event->detail.file.file_name, file);
    setText(event->detail.file.file_user_name, "svc");
    setText(event->detail.file.file_group_name, "svc");
    setText(event->detail.file.file_permissions, "0644");
    return event;
}

std::unique_ptr<_BASE_EVENTINFO> connection(unsigned long long pid, const std::string& ip, unsigned port,
                                            const std::string& protocol) {
    auto event = blankEvent(15, pid);
    event->detail.connect.dst_port = port;
    event->detail.connect.src_port = 40000;
    setText(event->detail.connect.dst_ip, ip);
    setText(event->detail.connect.src_ip, "192.168.1.5");
    setText(event->detail.connect.protocol, protocol);
    return event;
}

std::unique_ptr<_BASE_EVENTINFO> dnsQuery(unsigned long long pid, const std::string& name) {
    auto event = blankEvent(16, pid);
    setText(event->detail.dns.query_name, name);
    setText(event->detail.dns.query_result, "10.1.1.1");
    return event;
}

std::unique_ptr<_BASE_EVENTINFO> listening(unsigned long long pid, unsigned port, const std::string& protocol) {
    auto event = blankEvent(17, pid);
    event->detail.listen.port = port;
    setText(event->detail.listen.address, "0.0.0.0");
    setText(event->detail.listen.protocol, protocol);
    return event;
}

std::unique_ptr<_RASP_EVENTINFO> raspEvent(unsigned long long pid, unsigned short actionType,
                                           const std::string& subject) {
    static const char* const names[] = {"dns",  "address", "execute", "write",   "read",     "delete",
                                        "hsql", "mysql",   "oracle",  "postgre", "sqlserver"};
    auto event = std::make_unique<_RASP_EVENTINFO>();
    Transformer().initRaspInfo(*event);
    event->pid = pid;
    event->time = 1700000000;
    event->action_type = actionType;
    event->action = actionType <= 10 ? names[actionType] : "HOST_PORT_LISTENING";
    event->url = "/shop/cart";
    event->method = "POST";
    event->action_data = subject;
    switch (actionType) {
    case 0: event->dns_name = subject; break;
    case 1:
        event->action_data.clear();
        event->hostName = subject;
        event->dst_ip = "http://" + subject + ":8080/api";
        event->port = "8080";
        break;
    case 2: event->appCmd = subject; break;
    case 3: case 4: case 5: event->file_path = subject; break;
    default:
        if (actionType <= 10) event->sql_text = subject;
    }
    return event;
}

std::string period(const _BASE_EVENTINFO& event) {
    return getText(event.model_status);
}

std::string modelName(const _BASE_EVENTINFO& event) {
    return getText(event.model_name);
}

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "engine_lib_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::vector<std::string> TempDir::files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string TempDir::read(const std::string& name) const {
    std::ifstream in(m_path + "/" + name, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void TempDir::write(const std::string& name, const std::string& content) const {
    std::ofstream(m_path + "/" + name, std::ios::binary) << content;
}

}  // namespace enginetest
