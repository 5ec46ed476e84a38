#include "child_process.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "unix_socket.h"

namespace wlagent {
namespace {

ChildExit fromStatus(int status) {
    ChildExit exit;
    if (WIFSIGNALED(status)) {
        exit.signalled = true;
        exit.code = WTERMSIG(status);
    } else {
        exit.code = WEXITSTATUS(status);
    }
    return exit;
}

// Between fork and exec only async-signal-safe calls: the agent has threads.
[[noreturn]] void becomeChild(char* const* argv, int log, int input, int errorPipe, pid_t parent) {
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);  // the agent died before prctl
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(input, 0);
    ::dup2(log, 1);
    ::dup2(log, 2);
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
        for (int fd = 3; fd < 1024; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    ::execv(argv[0], argv);
    int err = errno;
    ssize_t ignored = ::write(errorPipe, &err, sizeof(err));
    (void)ignored;
    ::_exit(127);
}

}  // namespace

pid_t SystemProcessControl::spawn(const std::vector<std::string>& argv, const std::string& logFile,
                                  std::string& error) {
    if (argv.empty()) {
        error = "nothing to run";
        return -1;
    }
    wl::UniqueFd log(::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640));
    if (!log.valid()) {
        error = "cannot open " + logFile + ": " + std::strerror(errno);
        return -1;
    }
    wl::UniqueFd input(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    int ends[2];
    if (!input.valid() || ::pipe2(ends, O_CLOEXEC) != 0) {
        error = std::string("cannot prepare the child: ") + std::strerror(errno);
        return -1;
    }
    wl::UniqueFd readEnd(ends[0]);
    wl::UniqueFd writeEnd(ends[1]);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    const pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) {
        error = std::string("fork: ") + std::strerror(errno);
        return -1;
    }
    if (pid == 0) becomeChild(args.data(), log.get(), input.get(), writeEnd.get(), parent);
    writeEnd.reset();
    // End of file: exec succeeded and closed the pipe. Else exec's errno.
    int err = 0;
    ssize_t n;
    do {
        n = ::read(readEnd.get(), &err, sizeof(err));
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(sizeof(err))) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        error = "cannot run " + argv[0] + ": " + std::strerror(err);
        return -1;
    }
    return pid;
}

bool SystemProcessControl::reap(pid_t pid, ChildExit& exit) {
    int status = 0;
    pid_t rc = ::waitpid(pid, &status, WNOHANG);
    if (rc == 0) return false;
    if (rc < 0) {
        if (errno == EINTR) return false;
        exit = ChildExit{false, -1};  // not ours any more: nothing to wait for
        return true;
    }
    exit = fromStatus(status);
    return true;
}

ChildExit SystemProcessControl::terminate(pid_t pid, std::chrono::milliseconds grace) {
    ChildExit exit;
    ::kill(pid, SIGTERM);
    auto deadline = std::chrono::steady_clock::now() + grace;
    while (std::chrono::steady_clock::now() < deadline) {
        if (reap(pid, exit)) return exit;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ::kill(pid, SIGKILL);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return fromStatus(status);
}

}  // namespace wlagent
