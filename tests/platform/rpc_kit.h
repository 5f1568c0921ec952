// A test interface, a server of it in a process of its own, and calls to it.
#pragma once

#include "not_here.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <rpc.h>

#include <cstdint>
#include <string>
#include <vector>

// Procedures of the test interface. Numbers are u32.
enum Procedure : unsigned {
    kEcho,     // replies what it was sent
    kMake,     // number n: replies n bytes, each the low byte of its offset times 7
    kRaise,    // number: raises it
    kThrow,    // number 0: throws std::bad_alloc, else an int
    kIdentify, // replies the client's process id and the text of its identity
    kTouch,    // counts, and replies how often it was called
    kMonitor,  // number: asks for a rundown with it, replies the one asked for before
    kRundowns, // replies how often each of the 16 contexts was run down, 16 numbers
    kHold,     // does not return before kRelease was called
    kRelease,  // lets all kHold return
    kHolding,  // replies how many kHold are in progress
    kTooLong,  // claims a longer reply than its buffer
    kNoBuffer, // takes no buffer for its reply
    kHole,     // not offered
    kProcedureCount,
};

extern const RPC_SYNTAX_IDENTIFIER kTestInterface; // 8d1f7a10-52c4-4a0e-9d3b-0f1e2d3c4b5a, 1.2
extern const RPC_SYNTAX_IDENTIFIER kNdrSyntax;
extern const RPC_SYNTAX_IDENTIFIER kUnknownInterface;
extern RPC_CLIENT_INTERFACE g_testClient;

using Body = std::vector<uint8_t>;

struct Reply {
    RPC_STATUS status = RPC_S_OK;
    Body body;
    uint32_t Number(size_t index = 0) const;
};

Body Number(uint32_t value);
Body Pattern(size_t size); // as kMake makes it

class TestBinding {
public:
    explicit TestBinding(const std::string& endpoint = "test");
    ~TestBinding() { Free(); }
    TestBinding(const TestBinding&) = delete;
    void Free();
    Reply Call(unsigned procedure, const Body& request = {},
               RPC_CLIENT_INTERFACE& interfaceOfCall = g_testClient) const;
    RPC_BINDING_HANDLE Handle() const { return m_handle; }

private:
    RPC_BINDING_HANDLE m_handle = nullptr;
};

// A process that serves the test interface until it is told to stop.
class TestServer {
public:
    explicit TestServer(const std::string& endpoint = "test");
    TestProcess& Process() { return m_process; }
    // "stop", "wait", "listen", "withdraw", "offer", "release" of what is held, or "hurry": half a second for a
    // message.
    RPC_STATUS Order(const std::string& order);
    void Kill() { m_process.Kill(); }
    void Restart();

private:
    std::string m_endpoint;
    TestProcess m_process;
};

// Ends the test as skipped where the run-time has no calls for associations.
void NeedsAssociations();

// In this process.
RPC_STATUS RegisterTestInterface();
RPC_STATUS ServeOn(const std::string& endpoint);
RPC_STATUS StopServing(); // and waits until it has stopped
