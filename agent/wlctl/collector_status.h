// The collector's STATUS answer (JSON) as text for an operator.
#ifndef WL_WLCTL_COLLECTOR_STATUS_H
#define WL_WLCTL_COLLECTOR_STATUS_H

#include <string>

#include "collector_client.h"

namespace wlctl {

// False, with text saying why, when the JSON is unreadable.
bool formatCollectorStatus(const CollectorReply& reply, std::string& text);

}  // namespace wlctl

#endif
