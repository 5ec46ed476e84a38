#include "syslog_sink.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "syslog_format.h"

namespace wlforward {

SyslogSink::SyslogSink(SyslogSinkSettings settings) : m_settings(std::move(settings)) {
    char host[256] = {0};
    if (::gethostname(host, sizeof host - 1) == 0) m_hostname = host;
}

SyslogSink::~SyslogSink() {
    if (m_fd >= 0) ::close(m_fd);
}

bool SyslogSink::connectSocket(std::string& error) {
    if (m_fd >= 0) return true;
    // A datagram socket has no peer credentials to ask for: the socket file
    // must belong to root or to us, so no other user can pose as syslog.
    struct stat st;
    if (::stat(m_settings.socket.c_str(), &st) != 0) {
        error = "no syslog socket at " + m_settings.socket + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISSOCK(st.st_mode) || (st.st_uid != 0 && st.st_uid != ::geteuid())) {
        error = m_settings.socket + " is not a socket owned by root or by this user: refused";
        return false;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (m_settings.socket.size() >= sizeof addr.sun_path) {
        error = "syslog socket path too long";
        return false;
    }
    std::memcpy(addr.sun_path, m_settings.socket.c_str(), m_settings.socket.size());
    m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    // A syslog daemon that stops reading must not hang this sink for good.
    timeval limit{5, 0};
    if (m_fd >= 0) ::setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (m_fd < 0 || ::connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        error = "cannot connect to " + m_settings.socket + ": " + std::strerror(errno);
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
        return false;
    }
    return true;
}

SendResult SyslogSink::send(const std::vector<Report>& batch) {
    SendResult result;
    if (!connectSocket(result.error)) return result;
    SyslogHeader header;
    header.facility = m_settings.facility;
    header.hostname = m_hostname;
    header.appName = m_settings.appName;
    header.procId = static_cast<long>(::getpid());
    for (const Report& r : batch) {
        ::clock_gettime(CLOCK_REALTIME, &header.time);
        std::string message = formatSyslog(header, r.route, *r.text);
        if (message.size() > m_settings.maxMessageBytes) {
            // Refused for good: counted by the runner, and the rest goes on.
            if (result.delivered == 0 && result.rejected == 0) {
                result.rejected = 1;
                result.note = "a report of " + std::to_string(message.size()) + " bytes exceeds max_message_bytes";
                return result;
            }
            return result;  // the batch stops before it; the next pass refuses it
        }
        ssize_t n;
        do {
            n = ::send(m_fd, message.data(), message.size(), MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
        if (n < 0) {
            if (errno == EMSGSIZE && result.delivered == 0) {
                result.rejected = 1;
                result.note = "the syslog socket refused a report of " + std::to_string(message.size()) + " bytes";
                return result;
            }
            result.error = "cannot send to " + m_settings.socket + ": " + std::strerror(errno);
            ::close(m_fd);
            m_fd = -1;
            return result;
        }
        ++result.delivered;
    }
    return result;
}

}  // namespace wlforward
