// Holds a process-wide object that is never destroyed: the agent never stops
// its threads, so they may still log, poll or call in while the process runs
// its exit handlers, and what they use must outlive every static destructor.
#ifndef WL_NO_DESTRUCTOR_H
#define WL_NO_DESTRUCTOR_H

#include <new>
#include <utility>

namespace wl {

template <typename T>
class NoDestructor {
public:
    template <typename... Args>
    explicit NoDestructor(Args&&... args) {
        ::new (static_cast<void*>(m_storage)) T(std::forward<Args>(args)...);
    }
    NoDestructor(const NoDestructor&) = delete;
    NoDestructor& operator=(const NoDestructor&) = delete;

    T& get() { return *std::launder(reinterpret_cast<T*>(m_storage)); }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
};

}  // namespace wl

#endif
