// A destination of the spooled reports. Each sink is driven by its own
// SinkRunner, so a slow or dead one holds back no other.
#ifndef WL_FORWARD_SINK_H
#define WL_FORWARD_SINK_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "envelope.h"

namespace wlforward {

struct Report {
    uint64_t offset = 0;  // in the spool: unique per report on this host
    const std::string* text = nullptr;
    Route route;
};

struct Upload {
    UploadEntry entry;
    std::string path;  // the copy to send
    uint64_t offset = 0;
};

// The first `delivered` items are taken; the `rejected` after them never
// will be (the sink refuses them for what they are, said in note) and are
// skipped and counted. A non-empty error means the rest is to be tried
// again after a pause.
struct SendResult {
    size_t delivered = 0;
    size_t rejected = 0;
    std::string error;
    std::string note;
};

class Sink {
public:
    virtual ~Sink() = default;
    virtual const char* name() const = 0;
    virtual SendResult send(const std::vector<Report>& batch) = 0;
    virtual bool takesFiles() const { return false; }
    virtual SendResult sendFile(const Upload& file) {
        (void)file;
        return SendResult{0, 1, "", "this sink takes no files"};
    }
};

// The whole copy of an upload, for the sinks that send a file as one body;
// false with error set when it cannot be read.
bool readUpload(const Upload& file, std::string& content, std::string& error);

}  // namespace wlforward

#endif
