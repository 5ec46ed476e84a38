#include "event_kind.h"

#include "action_records.h"

namespace wlc {
namespace {

struct KindInfo {
    EventKind kind;
    const char* kindName;
    const char* eventName;
    uint32_t subType;
    RecordShape shape;
};

// Reported kinds first, in EventKind order.
constexpr KindInfo kKinds[kEventKindCount] = {
    {EventKind::ProcessCreation, "process", "PROCESS_CREATION", ACTION_PROCESS_CREATION, RecordShape::Process},
    {EventKind::FileCreation, "file-create", "FILE_CREATION", ACTION_FILE_CREATION, RecordShape::File},
    {EventKind::FileModification, "file-modify", "FILE_MODIFICATION", ACTION_FILE_MODIFICATION, RecordShape::File},
    {EventKind::FileDeletion, "file-delete", "FILE_DELETION", ACTION_FILE_DELETION, RecordShape::File},
    {EventKind::FileRenaming, "file-rename", "FILE_RENAMING", ACTION_FILE_RENAMING, RecordShape::File},
    {EventKind::FileTimeChange, "file-time", "FILE_TIME_MODIFICATION", ACTION_FILE_TIME_MODIFICATION,
     RecordShape::File},
    {EventKind::Connection, "connect", "NETWORK_CONNECTION", ACTION_NETWORK_CONNECTION, RecordShape::Net},
    {EventKind::DnsQuery, "dns", "DNS_QUERY", ACTION_DNS_QUERY, RecordShape::Net},
    {EventKind::Listening, "listen", "HOST_PORT_LISTENING", ACTION_PORT_LISTENING, RecordShape::Net},
    {EventKind::Fork, "fork", "", 0, RecordShape::Process},
    {EventKind::Exit, "exit", "", 0, RecordShape::Process},
};

const KindInfo& info(EventKind kind) { return kKinds[static_cast<int>(kind)]; }

}  // namespace

const char* eventKindName(EventKind kind) { return info(kind).kindName; }
const char* eventName(EventKind kind) { return info(kind).eventName; }
uint32_t subTypeOf(EventKind kind) { return info(kind).subType; }
RecordShape shapeOf(EventKind kind) { return info(kind).shape; }

std::optional<EventKind> kindOfSubType(uint32_t subType) {
    for (int i = 0; i < kReportedKindCount; ++i) {
        if (kKinds[i].subType == subType) return kKinds[i].kind;
    }
    return std::nullopt;
}

}  // namespace wlc
