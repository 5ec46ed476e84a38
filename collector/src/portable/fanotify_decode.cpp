#include "portable/fanotify_decode.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <cstring>

namespace wlc::portable {
namespace {

struct HandleHead {
    uint32_t bytes;
    int32_t type;
};

bool carriesName(uint8_t type) {
    return type == FAN_EVENT_INFO_TYPE_DFID_NAME || type == FAN_EVENT_INFO_TYPE_OLD_DFID_NAME ||
           type == FAN_EVENT_INFO_TYPE_NEW_DFID_NAME;
}

bool carriesHandle(uint8_t type) {
    return carriesName(type) || type == FAN_EVENT_INFO_TYPE_FID || type == FAN_EVENT_INFO_TYPE_DFID;
}

// One info record; false when it does not hold what its header says.
bool decodeRecord(const uint8_t* record, std::size_t length, uint8_t type, FileHandleRecord& out) {
    constexpr std::size_t kHandleAt = sizeof(fanotify_event_info_header) + 2 * sizeof(int32_t);
    if (length < kHandleAt + sizeof(HandleHead)) return false;
    int32_t fsid[2];
    std::memcpy(fsid, record + sizeof(fanotify_event_info_header), sizeof(fsid));
    HandleHead head;
    std::memcpy(&head, record + kHandleAt, sizeof(head));
    std::size_t handleEnd = kHandleAt + sizeof(HandleHead) + head.bytes;
    if (head.bytes == 0 || head.bytes > MAX_HANDLE_SZ || handleEnd > length) return false;
    out.type = type;
    out.fsid = fsidKey(fsid[0], fsid[1]);
    out.handle.assign(record + kHandleAt, record + handleEnd);
    if (carriesName(type)) {
        const char* name = reinterpret_cast<const char*>(record + handleEnd);
        const void* end = std::memchr(name, '\0', length - handleEnd);
        if (end == nullptr) return false;
        out.name.assign(name, static_cast<const char*>(end));
        if (out.name.empty()) return false;
    }
    return true;
}

}  // namespace

uint64_t fsidKey(int32_t first, int32_t second) {
    return static_cast<uint64_t>(static_cast<uint32_t>(first)) |
           (static_cast<uint64_t>(static_cast<uint32_t>(second)) << 32);
}

void decodeFanotifyBuffer(const uint8_t* data, std::size_t size, const std::function<bool(int32_t)>& wanted,
                          FanotifyBatch& out) {
    std::size_t at = 0;
    while (size - at >= sizeof(fanotify_event_metadata)) {
        fanotify_event_metadata meta;
        std::memcpy(&meta, data + at, sizeof(meta));
        if (meta.vers != FANOTIFY_METADATA_VERSION || meta.event_len < sizeof(meta) || meta.event_len > size - at ||
            meta.metadata_len < sizeof(meta) || meta.metadata_len > meta.event_len) {
            ++out.malformed;
            return;  // nothing after it can be trusted to start on an event
        }
        const uint8_t* event = data + at;
        at += meta.event_len;
        if (meta.mask & FAN_Q_OVERFLOW) {
            ++out.overflows;
            continue;
        }
        if (!wanted(meta.pid)) continue;

        FanotifyEvent decoded;
        decoded.mask = meta.mask;
        decoded.pid = meta.pid;
        bool intact = true;
        for (std::size_t info = meta.metadata_len; info < meta.event_len;) {
            fanotify_event_info_header head;
            if (meta.event_len - info < sizeof(head)) {
                intact = false;
                break;
            }
            std::memcpy(&head, event + info, sizeof(head));
            if (head.len < sizeof(head) || head.len > meta.event_len - info) {
                intact = false;
                break;
            }
            if (carriesHandle(head.info_type)) {
                FileHandleRecord record;
                if (!decodeRecord(event + info, head.len, head.info_type, record)) {
                    intact = false;
                    break;
                }
                decoded.records.push_back(std::move(record));
            }
            info += head.len;
        }
        if (!intact) {
            ++out.malformed;
            continue;
        }
        out.events.push_back(std::move(decoded));
    }
    if (at != size) ++out.malformed;
}

}  // namespace wlc::portable
