// The message queue of a thread: its windows, and the messages that were taken from their FIFOs and not yet handed out.
//
// A queue belongs to its thread and is used by no other, except when the thread has been stopped for good, and that
// leaving the process removes the files of all windows. It has a descriptor that polls readable while there is
// something to do: an epoll set of the FIFOs and of a bell, which is rung while messages that were taken out wait here.
#pragma once

#include "window/message_pipe.h"
#include "window/window_class.h"

#include <deque>
#include <memory>
#include <vector>

namespace oriel {

struct Window {
    explicit Window(ClassUse use) : windowClass(std::move(use)), procedure(windowClass.Get()->procedure) {}

    ClassUse windowClass;
    WNDPROC procedure;
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

// As many as Windows lets pile up; beyond it they stay in the FIFOs, which then refuse more.
constexpr size_t kMostWaitingMessages = 10000;

// The calling thread's queue; null when it never had a window or asked for the descriptor.
ThreadQueue* OwnQueue();
// Makes it if need be; null with the last error set.
ThreadQueue* MakeOwnQueue();

// A window of this queue, null for any other handle. Who holds it keeps its FIFO open: a message that was sent to a
// window is answered before its sender sees the FIFO close, even when the message destroyed the window.
std::shared_ptr<Window> FindOwnWindow(ThreadQueue* queue, HWND handle);

// False with the last error set.
bool AddWindow(ThreadQueue& queue, const std::shared_ptr<Window>& window);
// The window's files, its messages and its share in its class go.
void DropWindow(ThreadQueue& queue, const std::shared_ptr<Window>& window);

bool IsFull(const ThreadQueue& queue);
// Takes what has arrived, within the limit.
void Collect(ThreadQueue& queue);
// Calls the procedures that messages were sent to, and answers.
void AnswerSent(ThreadQueue& queue);
void SetBell(ThreadQueue& queue, bool ring);

} // namespace oriel
