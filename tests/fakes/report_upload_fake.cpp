#include "call_log.h"
#include "module_fakes.h"
#include "vrccl_action.h"
#include "whitelist.h"
#include "whitelist_upload.h"

namespace module_fakes {
namespace {
Recorded<ReportUpload> g_uploads;
Recorded<Subscription> g_subscriptions;
}  // namespace

std::vector<ReportUpload> uploads(int type) {
    return g_uploads.where([type](const ReportUpload& upload) { return type == -1 || upload.type == type; });
}

std::vector<Subscription> subscriptions() { return g_subscriptions.all(); }

void reset() {
    g_uploads.clear();
    g_subscriptions.clear();
}

}  // namespace module_fakes

extern "C" {

WhitelistContext g_whitelist_context;

int whitelist_upload_data(const char* text, int type) {
    module_fakes::g_uploads.add({text != nullptr ? text : "", type});
    return 0;
}

int vrccl_action_subscribe(int action, int id, int reserved) {
    module_fakes::g_subscriptions.add({action, id, reserved});
    call_log::record("vrccl_action_subscribe(" + std::to_string(action) + "," + std::to_string(id) + "," +
                     std::to_string(reserved) + ")");
    return 0;
}

}  // extern "C"
