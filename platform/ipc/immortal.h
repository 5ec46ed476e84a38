// Storage for a process-wide object that is never destroyed: detached
// threads of the agent may still use it while static objects are torn down
// at exit.
#ifndef WL_IMMORTAL_H
#define WL_IMMORTAL_H

#include <new>

namespace wlsock {

template <class T>
class Immortal {
public:
    Immortal() { new (m_storage) T(); }
    T& get() { return *std::launder(reinterpret_cast<T*>(m_storage)); }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
};

}  // namespace wlsock

#endif
