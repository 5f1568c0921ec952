// Memory that misbehaves, for tests of calls that take addresses from their callers.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

// One way for a caller's address to be wrong, or only to look so.
struct AddressCase {
    const char* kind;
    void* address;
    size_t size;
    bool readable; // all of it
    bool writable;
};

class BadMemory {
public:
    BadMemory(); // fails the test when it cannot be had
    ~BadMemory();
    BadMemory(const BadMemory&) = delete;
    BadMemory& operator=(const BadMemory&) = delete;

    // The fourteen kinds, for a block of size bytes (at most a page). What is readable holds the byte 'x' and no NUL.
    std::vector<AddressCase> Kinds(size_t size);

    // An address with exactly size bytes (at most a page) before memory that is not there.
    unsigned char* AtEnd(size_t size);
    // Takes the access to the good page away, or gives it back.
    void Forbid(bool forbidden);
    void* GoodPage() { return m_good; }

private:
    size_t m_page;
    unsigned char* m_good = nullptr;     // followed by a page without access
    unsigned char* m_readOnly = nullptr; // one page
    unsigned char* m_unmapped = nullptr; // one page that is mapped, then one that is not
    unsigned char* m_file = nullptr;     // two pages of a file of one
};

// From here to the process's end the system refuses the calls that a fault guard likes best, as a sandbox does. False
// where that cannot be arranged.
bool RefuseGuardCalls();

// Runs the function in a forked child, without exec; its result, or 128 + the signal's number.
int RunForked(const std::function<int()>& function);
