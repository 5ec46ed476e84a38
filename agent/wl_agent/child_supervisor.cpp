#include "child_supervisor.h"

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

// A child's log is kept to two files of bounded size.
void rotateLog(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && st.st_size > kLogRotateBytes) {
        std::rename(path.c_str(), (path + ".1").c_str());
    }
}

std::string seconds(std::chrono::seconds s) { return std::to_string(s.count()) + " s"; }

}  // namespace

constexpr std::chrono::seconds ChildSupervisor::kFirstDelay;
constexpr std::chrono::seconds ChildSupervisor::kMaxDelay;
constexpr std::chrono::seconds ChildSupervisor::kSteadyRun;
constexpr std::chrono::milliseconds ChildSupervisor::kStopGrace;

ChildSupervisor::ChildSupervisor(ChildProgram program, ProcessControl& processes, Clock clock, Log log)
    : m_program(std::move(program)), m_processes(processes), m_clock(std::move(clock)), m_log(std::move(log)) {}

void ChildSupervisor::start() {
    if (m_state != State::Idle) return;
    if (m_program.argv.empty() || !exists(m_program.argv[0])) {
        m_state = State::Missing;
        m_log("no " + m_program.name + " at " + (m_program.argv.empty() ? "" : m_program.argv[0]) + ": running " +
              m_program.withoutIt);
        return;
    }
    std::string dir = m_program.logFile.substr(0, m_program.logFile.rfind('/'));
    if (dirutils_mkdir(dir.c_str(), 0755) != 0) m_log("cannot create " + dir + " for the " + m_program.name + "'s log");
    launch();
}

void ChildSupervisor::launch() {
    rotateLog(m_program.logFile);
    std::string error;
    pid_t pid = m_processes.spawn(m_program.argv, m_program.logFile, error);
    if (pid < 0) {
        scheduleRestart("cannot start the " + m_program.name + ": " + error);
        return;
    }
    m_pid = pid;
    m_state = State::Running;
    m_startedAt = m_clock();
    m_log(m_program.name + " started (pid " + std::to_string(pid) + ", log " + m_program.logFile + ")");
}

void ChildSupervisor::poll() {
    if (m_state == State::Running) {
        ChildExit exit;
        if (m_processes.reap(m_pid, exit)) onExit(exit);
    } else if (m_state == State::Waiting && m_clock() >= m_restartAt) {
        m_log("restarting the " + m_program.name);
        launch();
    }
}

void ChildSupervisor::onExit(const ChildExit& exit) {
    m_pid = -1;
    if (!exit.signalled && exit.code == m_program.cannotRunCode) {
        m_state = State::GaveUp;
        std::string reason = lastLogLine();
        m_log("the " + m_program.name + " cannot run on this host" + (reason.empty() ? std::string() : ": " + reason) +
              " (see " + m_program.logFile + "); not restarting it, running " + m_program.withoutIt);
        return;
    }
    if (m_clock() - m_startedAt >= kSteadyRun) m_delay = kFirstDelay;
    std::string how = exit.signalled
                          ? "killed by signal " + std::to_string(exit.code) + " (" + strsignal(exit.code) + ")"
                          : "exited with status " + std::to_string(exit.code);
    scheduleRestart(m_program.name + " " + how);
}

void ChildSupervisor::setMaxDelay(std::chrono::seconds limit) {
    m_maxDelay = std::max(limit, kFirstDelay);
    m_delay = std::min(m_delay, m_maxDelay);
}

void ChildSupervisor::scheduleRestart(const std::string& what) {
    m_state = State::Waiting;
    m_restartAt = m_clock() + m_delay;
    m_log(what + "; restarting it in " + seconds(m_delay));
    m_delay = std::min(m_delay * 2, m_maxDelay);
}

void ChildSupervisor::stop() {
    if (m_state == State::Running) {
        ChildExit exit = m_processes.terminate(m_pid, kStopGrace);
        m_log(exit.signalled ? m_program.name + " stopped (signal " + std::to_string(exit.code) + ")"
                             : m_program.name + " stopped (status " + std::to_string(exit.code) + ")");
        m_pid = -1;
    }
    if (m_state != State::Idle) m_state = State::Stopped;
}

std::string ChildSupervisor::lastLogLine() const {
    std::ifstream in(m_program.logFile, std::ios::binary | std::ios::ate);
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
