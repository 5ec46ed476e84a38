// The module's debug point "wl_dbg": commands go in, no result comes back.
#ifndef WL_WLCTL_DEBUG_POINT_H
#define WL_WLCTL_DEBUG_POINT_H

#include <string>

namespace wlctl {

// Checks that the point answers, then hands it the JSON. Empty on success,
// else why it could not be delivered.
std::string sendToDebugPoint(const std::string& root, const std::string& json);

}  // namespace wlctl

#endif
