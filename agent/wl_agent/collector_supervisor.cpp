#include "collector_supervisor.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

#include "dirutils.h"

namespace wlagent {
namespace {

constexpr long kLogRotateBytes = 8L * 1024 * 1024;
constexpr std::streamoff kLogTailBytes = 4096;

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// The collector's log is kept to two files of bounded size.
void rotateLog(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && st.st_size > kLogRotateBytes) {
        std::rename(path.c_str(), (path + ".1").c_str());
    }
}

std::string seconds(std::chrono::seconds s) { return std::to_string(s.count()) + " s"; }

}  // namespace

constexpr std::chrono::seconds CollectorSupervisor::kFirstDelay;
constexpr std::chrono::seconds CollectorSupervisor::kMaxDelay;
constexpr std::chrono::seconds CollectorSupervisor::kSteadyRun;
constexpr std::chrono::milliseconds CollectorSupervisor::kStopGrace;

CollectorOptions collectorOptions(const std::string& root, const std::string& backend) {
    return CollectorOptions{root + "/vr_agent/wl-collector", root + "/var/run/vrccl.sock", backend,
                            root + "/var/log/agent/vr_agent/collector.log"};
}

bool isCollectorBackend(const std::string& name) { return name == "auto" || name == "ebpf" || name == "portable"; }

CollectorSupervisor::CollectorSupervisor(CollectorOptions options, ProcessControl& processes, Clock clock, Log log)
    : m_options(std::move(options)), m_processes(processes), m_clock(std::move(clock)), m_log(std::move(log)) {}

void CollectorSupervisor::start() {
    if (m_state != State::Idle) return;
    if (!exists(m_options.binary)) {
        m_state = State::Missing;
        m_log("no collector at " + m_options.binary + ": running without host events");
        return;
    }
    std::string dir = m_options.logFile.substr(0, m_options.logFile.rfind('/'));
    if (dirutils_mkdir(dir.c_str(), 0755) != 0) m_log("cannot create " + dir + " for the collector's log");
    launch();
}

void CollectorSupervisor::launch() {
    rotateLog(m_options.logFile);
    std::vector<std::string> argv = {m_options.binary, "--socket", m_options.socket};
    if (!m_options.backend.empty() && m_options.backend != "auto") {
        argv.push_back("--backend");
        argv.push_back(m_options.backend);
    }
    std::string error;
    pid_t pid = m_processes.spawn(argv, m_options.logFile, error);
    if (pid < 0) {
        scheduleRestart("cannot start the collector: " + error);
        return;
    }
    m_pid = pid;
    m_state = State::Running;
    m_startedAt = m_clock();
    m_log("collector started (pid " + std::to_string(pid) + ", log " + m_options.logFile + ")");
}

void CollectorSupervisor::poll() {
    if (m_state == State::Running) {
        ChildExit exit;
        if (m_processes.reap(m_pid, exit)) onExit(exit);
    } else if (m_state == State::Waiting && m_clock() >= m_restartAt) {
        m_log("restarting the collector");
        launch();
    }
}

void CollectorSupervisor::onExit(const ChildExit& exit) {
    m_pid = -1;
    if (!exit.signalled && exit.code == kCannotRunHere) {
        m_state = State::GaveUp;
        std::string reason = lastLogLine();
        m_log("the collector cannot run on this host" + (reason.empty() ? std::string() : ": " + reason) +
              " (see " + m_options.logFile + "); not restarting it, running without host events");
        return;
    }
    if (m_clock() - m_startedAt >= kSteadyRun) m_delay = kFirstDelay;
    std::string how = exit.signalled
                          ? "killed by signal " + std::to_string(exit.code) + " (" + strsignal(exit.code) + ")"
                          : "exited with status " + std::to_string(exit.code);
    scheduleRestart("collector " + how);
}

void CollectorSupervisor::scheduleRestart(const std::string& what) {
    m_state = State::Waiting;
    m_restartAt = m_clock() + m_delay;
    m_log(what + "; restarting it in " + seconds(m_delay));
    m_delay = std::min(m_delay * 2, kMaxDelay);
}

void CollectorSupervisor::stop() {
    if (m_state == State::Running) {
        ChildExit exit = m_processes.terminate(m_pid, kStopGrace);
        m_log(exit.signalled ? "collector stopped (signal " + std::to_string(exit.code) + ")"
                             : "collector stopped (status " + std::to_string(exit.code) + ")");
        m_pid = -1;
    }
    if (m_state != State::Idle) m_state = State::Stopped;
}

std::string CollectorSupervisor::lastLogLine() const {
    std::ifstream in(m_options.logFile, std::ios::binary | std::ios::ate);
    if (!in) return "";
    std::streamoff size = in.tellg();
    std::streamoff from = std::max<std::streamoff>(0, size - kLogTailBytes);
    in.seekg(from);
    std::string tail(static_cast<size_t>(size - from), '\0');
    in.read(&tail[0], static_cast<std::streamsize>(tail.size()));
    while (!tail.empty() && (tail.back() == '\n' || tail.back() == '\r' || tail.back() == ' ')) tail.pop_back();
    return tail.substr(tail.rfind('\n') == std::string::npos ? 0 : tail.rfind('\n') + 1);
}

}  // namespace wlagent
