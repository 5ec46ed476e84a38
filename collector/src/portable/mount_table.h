// Which mounted filesystems hold files worth watching, from
// /proc/self/mountinfo.
#ifndef WLC_PORTABLE_MOUNT_TABLE_H
#define WLC_PORTABLE_MOUNT_TABLE_H

#include <string>
#include <string_view>
#include <vector>

namespace wlc::portable {

struct MountEntry {
    std::string root;        // the part of the filesystem mounted here ("/": all of it)
    std::string mountPoint;  // octal escapes (\040 ...) undone
    std::string fsType;
};

// Lines that cannot be read are skipped.
std::vector<MountEntry> parseMountInfo(std::string_view text);
// Kernel views and other filesystems no program keeps files on.
bool isPseudoFilesystem(std::string_view fsType);
// The entries to mark: real filesystems, whole-filesystem mounts first so a
// file handle is resolved through a mount that can name every file.
std::vector<MountEntry> markableMounts(const std::vector<MountEntry>& all);

}  // namespace wlc::portable

#endif
