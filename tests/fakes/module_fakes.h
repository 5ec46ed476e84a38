// Stand-ins for the module's own functions that several areas call across
// their border: the upload to the manager and the collector's filter
// (wl_fake_report_upload, with the module context), and the model-management
// refreshes and loads (wl_fake_model_management). Both record into the call
// log (call_log.h); the first also keeps what a test reads back field by field.
#ifndef WL_TEST_MODULE_FAKES_H
#define WL_TEST_MODULE_FAKES_H

#include <string>
#include <vector>

namespace module_fakes {

struct ReportUpload {
    std::string text;
    int type;
};

struct Subscription {
    int action;
    int id;
    int reserved;
    bool operator==(const Subscription& o) const { return action == o.action && id == o.id && reserved == o.reserved; }
};

// Reports given to whitelist_upload_data: of one type, or all with -1, in order.
std::vector<ReportUpload> uploads(int type = -1);
// What vrccl_action_subscribe was told, in order.
std::vector<Subscription> subscriptions();
void reset();

}  // namespace module_fakes

#endif
