// An IPC endpoint served by a thread of its own, for the IPC tests.
#ifndef PLATFORM_SERVICES_IPC_SERVER_THREAD_H
#define PLATFORM_SERVICES_IPC_SERVER_THREAD_H

#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "cl_ev.h"
#include "kem_ipc.h"

// An endpoint on a thread of its own; when it answers, it is cmd + 1 with
// the data reversed.
class ServerThread {
public:
    ServerThread(const char* name, bool answer) : m_answer(answer) {
        m_thread = std::thread([this, name] {
            m_id = std::this_thread::get_id();
            kem_ipc_t ipc = kem_ipc_create(name, 0);
            if (ipc) kem_ipc_msg_recv(ipc, on_message, this);
            m_state = ipc ? 1 : -1;
            while (!m_stop) {
                if (!m_paused) {
                    cl_ev_loop_nowait(1);
                    cl_event_loop_once();
                }
                usleep(1000);
            }
            kem_ipc_destroy(ipc);
        });
        while (m_state == 0) usleep(1000);
    }
    ~ServerThread() {
        m_stop = true;
        m_thread.join();
    }
    bool ok() const { return m_state == 1; }
    // While paused the thread doesn't pump: messages wait for it.
    void pause(bool on) { m_paused = on; }
    int messages() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_messages;
    }

    std::mutex m_lock;
    std::string m_seen;
    unsigned int m_cmd = 0;
    bool m_onOwnThread = false;

private:
    static void on_message(unsigned long ctx1, unsigned long ctx2, unsigned int cmd, const void* data,
                           unsigned int size, void* user) {
        auto* self = static_cast<ServerThread*>(user);
        std::string text(static_cast<const char*>(data), size);
        std::lock_guard<std::mutex> lock(self->m_lock);
        self->m_seen += text;
        ++self->m_messages;
        self->m_cmd = cmd;
        self->m_onOwnThread = std::this_thread::get_id() == self->m_id;
        std::string reversed(text.rbegin(), text.rend());
        if (self->m_answer) kem_ipc_response(ctx1, ctx2, cmd + 1, 0, reversed.data(), size);
    }

    bool m_answer;
    std::thread::id m_id;
    std::atomic<int> m_state{0};
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_paused{false};
    int m_messages = 0;
    std::thread m_thread;
};

#endif
