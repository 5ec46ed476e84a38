// Features by the raw text they were folded from. Applications repeat their
// statements and helper commands verbatim (bound parameters, fixed command
// lines), and folding them again costs more than the rest of the judgement.
#ifndef BASEENG_FEATURE_MEMO_H
#define BASEENG_FEATURE_MEMO_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace baseeng {

// A fixed table of slots indexed by the hash of the raw text, so its size is
// bounded. A text takes a slot only on its second sighting there: texts that
// never repeat (those carrying literal ids) cost one hash and evict nothing.
class FeatureMemo {
public:
    static const std::size_t kSlots = 512;
    static const std::size_t kMaxTextBytes = 1024;  // longer raw texts are folded each time

    struct Key {
        const char* raw;
        std::size_t size;
        std::uint64_t tag;  // what else the folding read: the kind, a dialect, the learned directories
        std::size_t hash;
    };

    static Key keyOf(const char* raw, std::size_t size, std::uint64_t tag);
    // The feature folded from this key's text, or null.
    const std::string* find(const Key& key) const;
    void remember(const Key& key, const char* feature, std::size_t size);
    void remember(const Key& key, const std::string& feature) { remember(key, feature.data(), feature.size()); }
    void clear() { m_slots.clear(); }

private:
    struct Slot {
        std::size_t hash = 0;
        std::uint64_t tag = 0;
        bool filled = false;
        std::size_t candidate = 0;  // hash of the text last seen here and not kept
        std::string raw;
        std::string feature;
    };
    std::vector<Slot> m_slots;  // empty until something is remembered
};

}  // namespace baseeng

#endif
