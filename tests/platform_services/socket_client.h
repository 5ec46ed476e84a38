// A plain client of a Unix stream socket, as another process would be.
#ifndef PLATFORM_SERVICES_SOCKET_CLIENT_H
#define PLATFORM_SERVICES_SOCKET_CLIENT_H

#include <string>

// Connects, writes the bytes and reads until the peer closes (at most ten
// seconds). Returns what was read; "<connect failed>" when nobody listens.
std::string socket_exchange(const std::string& path, const std::string& bytes);

#endif
