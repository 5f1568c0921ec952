// A session has its questions carried out, one at a time, by threads that all sessions of the module share, and keeps
// the answer until it is taken. There are as many threads as questions in progress, so a printer that hangs holds up no
// other; one that has had nothing to do for a while ends. State: the object's; the threads are in session.cpp.
#pragma once

#include "module.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <optional>

namespace devices {

class Session {
public:
    virtual ~Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void Start(void (*finished)(void* context), void* context);
    void Ask(const Question& question);
    bool Take(Answer* answer);
    static void Close(Session* session);

protected:
    Session() = default;
    // In one of the threads.
    virtual Answer Carry(const Question& question) = 0;
    // In any thread: makes Carry return soon.
    virtual void Cut() = 0;
    bool IsCut() const { return m_stop; }

private:
    friend class Workers;
    void CarryOut();

    void (*m_finished)(void*) = nullptr;
    void* m_context = nullptr;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::optional<Question> m_question; // under the lock: in progress
    std::optional<Answer> m_answer;     // under the lock
    bool m_abandoned = false;           // under the lock: closed, and deleted when the question is over
    std::atomic<bool> m_stop = false;
};

// Module::open: starts the session that make() returns. make: std::unique_ptr<Session>(); null with *error set; it may
// throw std::bad_alloc.
template <typename Make>
Session* OpenSession(Make make, void (*finished)(void* context), void* context, std::string* error) {
    try {
        std::unique_ptr<Session> session = make();
        if (session != nullptr) session->Start(finished, context);
        return session.release();
    } catch (const std::bad_alloc&) {
        *error = "there is not enough memory";
    }
    return nullptr;
}

// The interface of a module with that way to open a session.
constexpr Module ModuleOf(decltype(Module::open) open) {
    return {.size = sizeof(Module),
            .open = open,
            .ask = [](Session* session, const Question& question) { session->Ask(question); },
            .take = [](Session* session, Answer* answer) { return session->Take(answer); },
            .close = Session::Close};
}

// UTF-8 without control characters and invalid bytes, of at most kTextMax bytes: what a printer says is shown to
// people.
std::string CleanText(const char* text, size_t length);

} // namespace devices
