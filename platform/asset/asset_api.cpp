// The C face of the asset store.
// The public headers come first so that their functions are exported.
#pragma GCC visibility push(default)
#include "asset_collection.h"
#include "asset_control.h"
#pragma GCC visibility pop

#include "asset_store.h"

using asset::AssetStore;

extern "C" {

int get_asset_info_state_v2(int kind, int flags) { return AssetStore::instance().available(kind) ? 1 : 0; }

int get_asset_result_v2(int kind, int max_age, struct cJSON** result, int flags) {
    if (!result) return -1;
    asset::TreePtr tree = AssetStore::instance().result(kind, max_age);
    if (!tree) return -1;
    *result = tree.release();  // the caller deletes it
    return 0;
}

int asset_publish_v2(int kind, const char* json) { return AssetStore::instance().publish(kind, json); }

void asset_control_set_clock(asset_clock_fn clock) { AssetStore::instance().setClock(clock); }

void asset_control_reset(void) { AssetStore::instance().reset(); }

}  // extern "C"
