// A step at the end of a thread that asked for it. Unlike a thread_local with a destructor, asking can fail for lack of
// memory without ending the process, and takes no lock of the loader. No state but the C library's.
#pragma once

#include <pthread.h>

namespace oriel {

// A constant of a namespace.
class ThreadEnd {
public:
    explicit ThreadEnd(void (*step)(void*)) : m_isMade(pthread_key_create(&m_key, step) == 0) {}

    // For the calling thread, however often it asks. False: no memory.
    bool Arm() const { return m_isMade && pthread_setspecific(m_key, this) == 0; }

private:
    pthread_key_t m_key = 0;
    bool m_isMade;
};

} // namespace oriel
