// The question of a DNS message as a client sends it.
#ifndef WLC_DNS_QUERY_H
#define WLC_DNS_QUERY_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace wlc {

// The first question's name, dotted and without the root's trailing dot
// ("." for the root itself). Nothing when the bytes are not a query: too
// short, a response, no question, a compressed or over-long name, or a
// label that runs past the end (a captured prefix may be cut short).
std::optional<std::string> parseDnsQueryName(const uint8_t* data, std::size_t size);

}  // namespace wlc

#endif
