#include "portable/mount_table.h"

#include <algorithm>
#include <array>

namespace wlc::portable {
namespace {

std::string unescapeOctal(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            std::string_view digits = field.substr(i + 1, 3);
            if (std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '7'; })) {
                out += static_cast<char>(((digits[0] - '0') << 6) | ((digits[1] - '0') << 3) | (digits[2] - '0'));
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return out;
}

std::vector<std::string_view> splitBlanks(std::string_view line) {
    std::vector<std::string_view> fields;
    while (!line.empty()) {
        std::size_t start = line.find_first_not_of(' ');
        if (start == std::string_view::npos) break;
        line = line.substr(start);
        std::size_t end = line.find(' ');
        fields.push_back(line.substr(0, end));
        if (end == std::string_view::npos) break;
        line = line.substr(end);
    }
    return fields;
}

}  // namespace

std::vector<MountEntry> parseMountInfo(std::string_view text) {
    std::vector<MountEntry> entries;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);

        // id parent major:minor root mount-point options [optional...] - type source super-options
        auto fields = splitBlanks(line);
        auto separator = std::find(fields.begin(), fields.end(), "-");
        if (fields.size() < 7 || separator == fields.end() || separator - fields.begin() < 6 ||
            fields.end() - separator < 2) {
            continue;
        }
        MountEntry entry;
        entry.root = unescapeOctal(fields[3]);
        entry.mountPoint = unescapeOctal(fields[4]);
        entry.fsType = std::string(*(separator + 1));
        entries.push_back(std::move(entry));
    }
    return entries;
}

bool isPseudoFilesystem(std::string_view fsType) {
    static constexpr std::array<std::string_view, 20> kPseudo = {
        "proc",        "sysfs", "cgroup",   "cgroup2",   "devpts",     "debugfs",   "tracefs",
        "securityfs",  "bpf",   "mqueue",   "pstore",    "configfs",   "fusectl",   "autofs",
        "binfmt_misc", "nsfs",  "efivarfs", "hugetlbfs", "rpc_pipefs", "selinuxfs",
    };
    return std::find(kPseudo.begin(), kPseudo.end(), fsType) != kPseudo.end();
}

std::vector<MountEntry> markableMounts(const std::vector<MountEntry>& all) {
    std::vector<MountEntry> picked;
    for (const MountEntry& entry : all) {
        if (!isPseudoFilesystem(entry.fsType)) picked.push_back(entry);
    }
    std::stable_partition(picked.begin(), picked.end(), [](const MountEntry& entry) { return entry.root == "/"; });
    return picked;
}

}  // namespace wlc::portable
