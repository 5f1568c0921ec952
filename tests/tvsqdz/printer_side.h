// A printer side as small as one can be: it looks at the mailboxes of a printer's database and answers what comes.
#pragma once

#include "machine.h"
#include "product/client.h"

// mailbox: the variable that was written; text: what it says. The result for "RWResult"; none: it never answers.
using Answering = std::function<std::optional<int32_t>(const std::string& mailbox, const std::string& text)>;

// One on a thread. What was asked before it began, and not answered, it answers first.
class PrinterSide {
public:
    explicit PrinterSide(
        DatabaseHandle database, Answering answer = [](auto&, auto&) { return 0; });
    ~PrinterSide() { SetEvent(m_stop); }

    int Requests() const { return m_requests; }

private:
    struct Mailbox {
        const char* variable;
        DWORD seen = 0; // writes
    };
    void Serve();

    const DatabaseHandle m_database;
    const Answering m_answer;
    Mailbox m_mailboxes[2] = {{"ReadRequest"}, {"WriteRequest"}};
    std::atomic<int> m_requests = 0;
    const HANDLE m_stop = NewEvent(true);
    std::optional<TestThread> m_thread;
};
