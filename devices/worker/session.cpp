// State: the object's.
#include "session.h"

#include <chrono>
#include <csignal>
#include <exception>
#include <pthread.h>

namespace devices {
namespace {

constexpr std::chrono::seconds kCloseWait{1};

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

void Session::Start(void (*finished)(void* context), void* context) {
    m_finished = finished;
    m_context = context;
    // Signals of the program are not for this thread, and a socket that breaks raises none.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Session::Run() {
    std::unique_lock hold(m_lock);
    while (!m_stop) {
        m_changed.wait(hold, [this] { return m_stop || m_question; }); // unbounded: for the life of the session
        if (m_stop) break;
        const Question question = *m_question;
        hold.unlock();
        Answer answer;
        try {
            answer = Carry(question);
        } catch (const std::exception&) { // only lack of memory
            answer = {.outcome = Outcome::Garbled, .trouble = "there is not enough memory for the printer's answer"};
        }
        hold.lock();
        m_question.reset();
        m_answer = std::move(answer);
        if (!m_stop) m_finished(m_context);
    }
    m_over = true;
    m_changed.notify_all();
}

void Session::Ask(const Question& question) {
    const std::lock_guard hold(m_lock);
    m_question = question;
    m_answer.reset();
    m_changed.notify_all();
}

bool Session::Take(Answer* answer) {
    const std::lock_guard hold(m_lock);
    if (!m_answer) return false;
    *answer = std::move(*m_answer);
    m_answer.reset();
    return true;
}

void Session::Close(Session* session) {
    bool over = false;
    {
        std::unique_lock hold(session->m_lock);
        session->m_stop = true;
        session->m_changed.notify_all();
        session->Cut();
        over = session->m_changed.wait_for(hold, kCloseWait, [session] { return session->m_over; });
    }
    if (!over) {
        session->m_thread.detach();
        return;
    }
    session->m_thread.join();
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
