#include "asset_store.h"

#include <sys/stat.h>

#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

#include "dirutils.h"
#include "no_destructor.h"

namespace asset {

namespace {
constexpr long long kMaxFileBytes = 64ll * 1024 * 1024;
}

AssetStore& AssetStore::instance() {
    static wl::NoDestructor<AssetStore> store;  // the agent's threads may ask while the process exits
    return store.get();
}

long long AssetStore::now() const { return m_clock ? m_clock() : static_cast<long long>(std::time(nullptr)); }

int AssetStore::publish(int kind, const char* json) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (!json) {
        m_published.erase(kind);
        return 0;
    }
    TreePtr tree(cJSON_Parse(json));
    if (!tree) return -1;
    m_published[kind] = Entry{std::move(tree), now()};
    return 0;
}

TreePtr AssetStore::readFile(int kind, long long* mtime) {
    char path[4096] = {0};
    std::string pattern = "@/../var/asset/" + std::to_string(kind) + ".json";
    if (dirutils_path_transform(pattern.c_str(), path, sizeof(path)) != 0) return nullptr;
    struct stat st;
    if (::stat(path, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxFileBytes) return nullptr;
    std::ifstream in(path, std::ios::binary);
    if (!in) return nullptr;
    std::ostringstream text;
    text << in.rdbuf();
    *mtime = static_cast<long long>(st.st_mtime);
    return TreePtr(cJSON_Parse(text.str().c_str()));
}

bool AssetStore::available(int kind) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_published.count(kind)) return true;
    long long mtime = 0;
    return readFile(kind, &mtime) != nullptr;
}

TreePtr AssetStore::result(int kind, int max_age) {
    std::lock_guard<std::mutex> lock(m_lock);
    long long born = 0;
    TreePtr copy;
    auto it = m_published.find(kind);
    if (it != m_published.end()) {
        born = it->second.published;
        copy.reset(cJSON_Duplicate(it->second.tree.get(), 1));
    } else {
        copy = readFile(kind, &born);
    }
    if (!copy) return nullptr;
    if (max_age > 0 && now() - born > max_age) return nullptr;
    return copy;
}

void AssetStore::setClock(asset_clock_fn clock) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_clock = clock;
}

void AssetStore::reset() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_published.clear();
}

}  // namespace asset
