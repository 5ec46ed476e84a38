// What a sink needs to know of a spool line without sending it apart: the
// report's type, host and sequence number, and the entries of the upload
// manifest.
#ifndef WL_FORWARD_ENVELOPE_H
#define WL_FORWARD_ENVELOPE_H

#include <cstdint>
#include <string>

namespace wlforward {

struct Route {
    std::string type = "unknown";      // the envelope's "type"
    std::string hostUuid = "unknown";  // its "host_uuid"
    std::string seqId;                 // its "seq_id"; empty when absent
    bool valid = false;                // the line is a JSON object with a string type
};

// Never fails: a line that is not an envelope keeps the "unknown" defaults
// and is still sent as it is.
Route routeOf(const std::string& line);

// A text made safe as one token of a NATS subject: letters, digits, '-' and
// '_' kept, anything else '_', at most 64 characters, never empty.
std::string subjectToken(const std::string& text);

struct UploadEntry {
    int kind = 0;
    std::string file;  // kind<N>/<name>, under <root>/var/spool/uploads
    std::string name;
    uint64_t bytes = 0;
    std::string hostUuid;
};

// A manifest line; false for anything that does not name a file below the
// uploads directory ("..", absolute paths and the like are refused).
bool parseUploadEntry(const std::string& line, UploadEntry& out);

}  // namespace wlforward

#endif
