// The records fanotify hands to a group that reports directory handles and
// names, decoded from the bytes read().
#ifndef WLC_PORTABLE_FANOTIFY_DECODE_H
#define WLC_PORTABLE_FANOTIFY_DECODE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace wlc::portable {

struct FileHandleRecord {
    uint8_t type = 0;  // FAN_EVENT_INFO_TYPE_*
    uint64_t fsid = 0;
    std::vector<uint8_t> handle;  // a struct file_handle, as open_by_handle_at takes it
    std::string name;             // *_DFID_NAME records: the entry in that directory
};

struct FanotifyEvent {
    uint64_t mask = 0;
    int32_t pid = 0;
    std::vector<FileHandleRecord> records;
};

struct FanotifyBatch {
    std::vector<FanotifyEvent> events;
    uint64_t overflows = 0;  // the kernel's queue was full
    uint64_t malformed = 0;
};

// Both fsid words as one key, the way statfs reports them too.
uint64_t fsidKey(int32_t first, int32_t second);

// Only events whose pid wanted() accepts are decoded further; everything
// else costs one look-up. The group never passes file descriptors (it
// reports handles), so there are none to close.
void decodeFanotifyBuffer(const uint8_t* data, std::size_t size, const std::function<bool(int32_t)>& wanted,
                          FanotifyBatch& out);

}  // namespace wlc::portable

#endif
