// The guard of a file descriptor. No state of its own.
#pragma once

#include <unistd.h>
#include <utility>

namespace oriel {

// Owns one file descriptor and closes it at the end of its life. It can be moved, not copied.
//
// Errors of close() are ignored: Linux releases the descriptor in any case, even when the call is interrupted.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    // Swaps: the descriptor that this guard had is closed with `other`.
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~Descriptor() { Close(); }

    // A failed open(), socket() and so on may be passed to the constructor as it is: the guard is then not open.
    bool IsOpen() const { return m_descriptor >= 0; }
    // The descriptor, still owned by the guard; -1 when it is not open.
    int Get() const { return m_descriptor; }
    // Passes the descriptor to the caller, who closes it.
    int Release() { return std::exchange(m_descriptor, -1); }
    void Close() {
        if (m_descriptor >= 0) close(m_descriptor);
        m_descriptor = -1;
    }

private:
    int m_descriptor = -1;
};

} // namespace oriel
