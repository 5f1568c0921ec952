// A watch on the printers of the print server and their jobs. State: the object's, with its thread.
#pragma once

#include "connection.h"

#include <string>
#include <thread>

namespace oriel {

class Watch {
public:
    // Throws std::bad_alloc.
    Watch(const PrintServerCall& call, void (*changed)(void*), void* context);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // ERROR_TIMEOUT: no server. ERROR_NOT_SUPPORTED: it has not the notifier program, or allows no subscription.
    DWORD Begin();

private:
    // recipient: of Get-Subscription-Attributes, else null.
    ipp_status_t Ask(ipp_op_t operation, int* subscription, std::string* recipient = nullptr);
    bool IsOurs();
    DWORD Subscribe();
    void Run();

    PrintServerCall m_call;
    void (*const m_changed)(void*);
    void* const m_context;
    const std::string m_uri; // of this watch's socket
    const int m_socket;
    const int m_stop;
    int m_subscription = 0; // 0: none
    std::thread m_thread;
};

} // namespace oriel
