// Who may feed telemetry. A probe runs inside an application, as the
// application's user; such a peer is let in only when its executable is one
// the runtime-application models know, and then speaks only for itself.
#ifndef ORV_RASP_PEER_POLICY_H
#define ORV_RASP_PEER_POLICY_H

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>

namespace orv_rasp {

// The executables named by the catalogue file ("process_path" of each
// model section); empty when the file is missing or unreadable.
std::set<std::string> known_executables(const std::string& catalogue);

// The executable of a live process whose owner is uid, or "" (gone, or
// another user's by now: its id was reused).
std::string executable_of(pid_t pid, uid_t uid);

// Whether the catalogue names the peer's executable.
bool runs_known_executable(pid_t pid, uid_t uid, const std::string& catalogue);

// Whether claimed is the peer process itself or one of its threads.
bool speaks_for_itself(pid_t peer, std::uint64_t claimed);

// The group that may connect: WL_RASP_GROUP when set, else "wl-telemetry"
// when that group exists; otherwise root's group, so that only root can.
// *name tells which, for the log.
gid_t telemetry_group(std::string* name);

}  // namespace orv_rasp

#endif
