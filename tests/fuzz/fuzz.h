// What the fuzz targets share. A target is a file NAME_fuzz.cpp with LLVMFuzzerTestOneInput; its seeds are in
// seeds/NAME.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Private state and run directories, gone when the process ends. The directory that holds both.
const std::string& PrivateMachine();

// A property that holds for every input.
#define REQUIRE(condition)                                                                                             \
    do {                                                                                                               \
        if (condition) break;                                                                                          \
        std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                                   \
        std::abort();                                                                                                  \
    } while (false)

// The input as a sequence of choices. Behind the end everything is 0.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    bool IsEmpty() const { return m_rest.empty(); }
    template <typename Number>
    Number Take() {
        Number number = 0;
        const std::string_view bytes = Bytes(sizeof number);
        std::memcpy(&number, bytes.data(), bytes.size());
        return number;
    }
    std::string_view Bytes(size_t size) {
        const std::string_view bytes = m_rest.substr(0, size);
        m_rest.remove_prefix(bytes.size());
        return bytes;
    }
    std::string_view Rest() const { return m_rest; }

private:
    std::string_view m_rest;
};
