// The thread of a session: takes a question, has it carried out, keeps the answer until it is taken. State: the
// object's.
#pragma once

#include "module.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

namespace devices {

class Session {
public:
    virtual ~Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Throws std::system_error when there is no thread to have.
    void Start(void (*finished)(void* context), void* context);
    void Ask(const Question& question);
    bool Take(Answer* answer);
    static void Close(Session* session);

protected:
    Session() = default;
    // In the session's thread.
    virtual Answer Carry(const Question& question) = 0;
    // In any thread: makes Carry return soon.
    virtual void Cut() = 0;
    bool IsCut() const { return m_stop; }

private:
    void Run();

    void (*m_finished)(void*) = nullptr;
    void* m_context = nullptr;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::optional<Question> m_question; // under the lock
    std::optional<Answer> m_answer;     // under the lock
    bool m_over = false;                // under the lock: the thread has ended
    std::atomic<bool> m_stop = false;
    std::thread m_thread;
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
    } catch (const std::system_error&) {
        *error = "there is no thread for the printer";
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
