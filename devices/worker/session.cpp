// State: the object's.
#include "session.h"

#include <chrono>
#include <csignal>
#include <deque>
#include <exception>
#include <pthread.h>
#include <sys/resource.h>
#include <thread>

namespace devices {
namespace {

constexpr std::chrono::seconds kCloseWait{1};
constexpr std::chrono::seconds kIdle{10}; // that a thread waits for another question

// Bytes of the UTF-8 character at the beginning; 0: it is not one.
size_t CharacterLength(const unsigned char* at, size_t left) {
    const unsigned char lead = *at;
    const size_t length = lead < 0x80                   ? 1
                          : lead >= 0xC2 && lead < 0xE0 ? 2
                          : lead >= 0xE0 && lead < 0xF0 ? 3
                          : lead >= 0xF0 && lead < 0xF5 ? 4
                                                        : 0;
    if (length == 0 || length > left) return 0;
    for (size_t i = 1; i < length; ++i)
        if ((at[i] & 0xC0) != 0x80) return 0;
    if ((lead == 0xE0 && at[1] < 0xA0) || (lead == 0xED && at[1] >= 0xA0)) return 0; // too long; a surrogate
    if ((lead == 0xF0 && at[1] < 0x90) || (lead == 0xF4 && at[1] >= 0x90)) return 0; // too long; above U+10FFFF
    if (lead == 0xC2 && at[1] < 0xA0) return 0;                                      // control characters
    return length;
}

} // namespace

// The threads, and the sessions whose questions wait for one.
class Workers {
public:
    // Throws std::system_error when there is no thread to have.
    void Add(Session& session) {
        const std::lock_guard hold(m_lock);
        if (m_waiting.size() >= m_idle) StartOne();
        m_waiting.push_back(&session);
        m_changed.notify_one();
    }

private:
    void StartOne() {
        // Signals of the program are not for this thread, and a socket that breaks raises none.
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);
        try {
            std::thread([this] { Run(); }).detach();
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            throw;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        ++m_idle;
    }

    void Run() {
        std::unique_lock hold(m_lock);
        while (m_changed.wait_for(hold, kIdle, [this] { return !m_waiting.empty(); })) {
            Session* session = m_waiting.front();
            m_waiting.pop_front();
            --m_idle;
            hold.unlock();
            session->CarryOut();
            hold.lock();
            ++m_idle;
        }
        --m_idle;
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<Session*> m_waiting;
    size_t m_idle = 0; // threads that wait
};

namespace {

// A session has three descriptors or so; many may be in one process.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Never destroyed: its threads run until the process has ended.
Workers& TheWorkers() {
    static auto& workers = *new Workers;
    return workers;
}

} // namespace

void Session::Start(void (*finished)(void* context), void* context) {
    static const bool raised = (RaiseDescriptorLimit(), true);
    static_cast<void>(raised);
    m_finished = finished;
    m_context = context;
}

void Session::CarryOut() {
    std::unique_lock hold(m_lock);
    const Question question = *m_question;
    Answer answer;
    if (!m_stop) {
        hold.unlock();
        try {
            answer = Carry(question);
        } catch (const std::exception&) { // only lack of memory
            answer = {.outcome = Outcome::Garbled, .trouble = "there is not enough memory for the printer's answer"};
        }
        hold.lock();
    }
    m_question.reset();
    m_answer = std::move(answer);
    if (!m_stop) m_finished(m_context);
    m_changed.notify_all();
    const bool abandoned = m_abandoned;
    hold.unlock();
    if (abandoned) delete this;
}

void Session::Ask(const Question& question) {
    {
        const std::lock_guard hold(m_lock);
        m_question = question;
        m_answer.reset();
    }
    try {
        TheWorkers().Add(*this);
    } catch (const std::exception&) { // lack of memory or of threads
        const std::lock_guard hold(m_lock);
        m_question.reset();
        m_answer = {.outcome = Outcome::NoAnswer, .trouble = "there is no thread for the printer"};
        m_finished(m_context);
    }
}

bool Session::Take(Answer* answer) {
    const std::lock_guard hold(m_lock);
    if (!m_answer) return false;
    *answer = std::move(*m_answer);
    m_answer.reset();
    return true;
}

void Session::Close(Session* session) {
    {
        std::unique_lock hold(session->m_lock);
        session->m_stop = true;
        session->Cut();
        session->m_changed.wait_for(hold, kCloseWait, [session] { return !session->m_question; });
        if (session->m_question) {
            session->m_abandoned = true;
            return;
        }
    }
    delete session;
}

std::string CleanText(const char* text, size_t length) {
    std::string clean;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    for (size_t at = 0; at < length;) {
        const size_t character = CharacterLength(bytes + at, length - at);
        const bool shown = character > 1 || (character == 1 && bytes[at] >= ' ' && bytes[at] != 0x7F);
        if (clean.size() + (shown ? character : 1) > kTextMax) break;
        if (shown)
            clean.append(text + at, character);
        else if (!clean.empty() && clean.back() != ' ')
            clean += ' ';
        at += character == 0 ? 1 : character;
    }
    while (!clean.empty() && clean.back() == ' ')
        clean.pop_back();
    return clean;
}

} // namespace devices
