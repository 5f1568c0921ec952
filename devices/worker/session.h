// The thread of a session: takes a question, has it carried out, keeps the answer until it is taken. State: the
// object's.
#pragma once

#include "module.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
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

// UTF-8 without control characters and invalid bytes, of at most kTextMax bytes: what a printer says is shown to
// people.
std::string CleanText(const char* text, size_t length);

} // namespace devices
