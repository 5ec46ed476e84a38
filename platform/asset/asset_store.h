// Asset lists by kind: what was published, else the kind's file.
#ifndef ASSET_STORE_H
#define ASSET_STORE_H

#include <cjson/cJSON.h>

#include <map>
#include <memory>
#include <mutex>

#include "asset_control.h"

namespace asset {

struct TreeDeleter {
    void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using TreePtr = std::unique_ptr<cJSON, TreeDeleter>;

class AssetStore {
public:
    static AssetStore& instance();

    // -1 for text that isn't JSON; null text clears the kind.
    int publish(int kind, const char* json);
    bool available(int kind);
    // A copy for the caller, or null when unavailable or too old.
    TreePtr result(int kind, int max_age);
    void setClock(asset_clock_fn clock);
    void reset();

private:
    struct Entry {
        TreePtr tree;
        long long published;
    };
    long long now() const;
    // The kind's file parsed, with its modification time; null when absent.
    static TreePtr readFile(int kind, long long* mtime);

    std::mutex m_lock;
    std::map<int, Entry> m_published;
    asset_clock_fn m_clock = nullptr;
};

}  // namespace asset

#endif
