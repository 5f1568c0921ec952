// The message queue of a thread: its windows, and the messages read from their FIFOs and not yet dispatched.
//
// A queue belongs to its thread. Exceptions: a terminated thread's queue is released by others, and the exit of the
// process removes the files of all windows. Its descriptor polls readable while there is something to do: an epoll set
// of the FIFOs and of an eventfd that is set while read messages wait here.
#pragma once

#include "window/message_pipe.h"
#include "window/window_class.h"

#include <deque>
#include <memory>
#include <vector>

namespace oriel {

struct Window {
    explicit Window(const WindowClass& its) : windowClass(its), procedure(its.procedure) {}

    const WindowClass& windowClass;
    const WNDPROC procedure;
    HWND handle = nullptr;
    Descriptor fifo;
    MessageReader reader;
    bool destroying = false;
};

struct ThreadQueue {
    DWORD threadId = 0;
    Descriptor poll;
    Descriptor bell;
    bool rung = false;
    std::vector<std::shared_ptr<Window>> windows; // changed under the lock of all queues
    std::deque<MSG> posted;
    std::deque<PipeMessage> sent;
    std::vector<PipeMessage> arrived; // scratch of Collect
    bool quit = false;
    int exitCode = 0;
};

// The limit of Windows; more messages stay in the FIFOs, which then refuse new ones.
constexpr size_t kMostWaitingMessages = 10000;

// The calling thread's queue; null when it never had a window or asked for the descriptor.
ThreadQueue* OwnQueue();
// Creates it if necessary; null with the last error set.
ThreadQueue* MakeOwnQueue();

// A window of this queue, null for other handles. Holding it keeps the FIFO open: a sent message is answered before its
// sender sees the FIFO close, even when the message destroyed the window.
std::shared_ptr<Window> FindOwnWindow(ThreadQueue* queue, HWND handle);

// False with the last error set.
bool AddWindow(ThreadQueue& queue, const std::shared_ptr<Window>& window);
// Removes the window's files and its messages.
void DropWindow(ThreadQueue& queue, const std::shared_ptr<Window>& window);

bool IsFull(const ThreadQueue& queue);
// Reads what has arrived, up to the limit.
void Collect(ThreadQueue& queue);
// Calls the window procedures for sent messages, and answers.
void AnswerSent(ThreadQueue& queue);
void SetBell(ThreadQueue& queue, bool ring);

} // namespace oriel
