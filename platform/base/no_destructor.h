// Holds a process-wide object that is never destroyed. The agent never stops
// its engine threads, so they may still log while the process runs its exit
// handlers; the logging state must outlive every static destructor.
#ifndef KEMBASE_NO_DESTRUCTOR_H
#define KEMBASE_NO_DESTRUCTOR_H

#include <new>
#include <utility>

namespace kembase {

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

}  // namespace kembase

#endif
