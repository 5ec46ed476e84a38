// What the doubles of a test executable were asked, in one ordered log shared
// by all of them, so that a test asserts the order across them; and the
// results scripted for them by function name. Thread-safe.
#ifndef WL_TEST_CALL_LOG_H
#define WL_TEST_CALL_LOG_H

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace call_log {

void record(const std::string& call);
// Records `call` and returns the result scripted for `name` (0 when none).
int scripted(const std::string& call, const std::string& name);
void script(const std::string& name, int result);
int result(const std::string& name);

std::vector<std::string> calls();
int count(const std::string& call);
// The log from the first entry equal to `call` on (empty if absent).
std::vector<std::string> calls_from(const std::string& call);

void clear();  // the log only
void reset();  // the log and the scripts

}  // namespace call_log

// Records of one kind whose fields a test reads back, in order.
template <class T>
class Recorded {
public:
    void add(T item) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_items.push_back(std::move(item));
    }
    std::vector<T> all() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_items;
    }
    template <class Predicate>
    std::vector<T> where(Predicate keep) const {
        std::vector<T> out = all();
        out.erase(std::remove_if(out.begin(), out.end(), [&](const T& item) { return !keep(item); }), out.end());
        return out;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_items.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<T> m_items;
};

#endif
