#include "feature_memo.h"

#include <cstring>

#include "text_hash.h"

namespace baseeng {

FeatureMemo::Key FeatureMemo::keyOf(const char* raw, std::size_t size, std::uint64_t tag) {
    std::size_t hash = hashText(raw, size);
    hash ^= static_cast<std::size_t>((tag + 1) * 0x9e3779b97f4a7c15ull);
    return Key{raw, size, tag, hash};
}

const std::string* FeatureMemo::find(const Key& key) const {
    if (m_slots.empty() || key.size > kMaxTextBytes) {
        return nullptr;
    }
    const Slot& slot = m_slots[key.hash % kSlots];
    if (!slot.filled || slot.hash != key.hash || slot.tag != key.tag || slot.raw.size() != key.size ||
        std::memcmp(slot.raw.data(), key.raw, key.size) != 0) {
        return nullptr;
    }
    return &slot.feature;
}

void FeatureMemo::remember(const Key& key, const char* feature, std::size_t size) {
    if (key.size > kMaxTextBytes || size > 2 * kMaxTextBytes) {
        return;
    }
    if (m_slots.empty()) {
        m_slots.resize(kSlots);
    }
    Slot& slot = m_slots[key.hash % kSlots];
    if (slot.candidate != key.hash) {
        slot.candidate = key.hash;
        return;
    }
    // Filled last: an allocation failure on the way leaves the slot empty, not wrong.
    slot.filled = false;
    slot.hash = key.hash;
    slot.tag = key.tag;
    slot.raw.assign(key.raw, key.size);
    slot.feature.assign(feature, size);
    slot.filled = true;
}

}  // namespace baseeng
