// The real `oriel`, service and examples on the private machine of the test.
#pragma once

#include "test_process.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using Json = nlohmann::json;

ProgramResult Oriel(const std::vector<std::string>& arguments, const Environment& environment = {});

// The same as another user, which only root can.
ProgramResult OrielAsNobody(const std::vector<std::string>& arguments);

// With --json: the one document that it must print. Fails the test when the exit code or the output is another.
Json OrielJson(std::vector<std::string> arguments, int exitCode = 0, const Environment& environment = {});

// The output, without its last newline, of a command that must end with 0.
std::string OrielText(const std::vector<std::string>& arguments, const Environment& environment = {});

// `oriel up --json`, up once constructed; stopped by the destructor when the test did not.
class RunningProduct {
public:
    explicit RunningProduct(const Environment& environment = {});
    ~RunningProduct();

    // The next event, which must be this one.
    Json Event(const std::string& name);
    void Interrupt() { m_up.Interrupt(); }
    void Terminate() { m_up.Terminate(); }
    int Wait() { return m_up.Wait(); }
    std::string Errors() { return m_up.Errors(); }

private:
    TestProcess m_up;
};

// The example model, and "Front desk", a printer of it.
void AddExamplePrinter(const Environment& environment = {});

// A socket that counts who connects, and closes each connection at once.
class CountedSocket {
public:
    explicit CountedSocket(const std::string& path);
    ~CountedSocket();
    int Connections() const { return m_connections; }

private:
    std::atomic<int> m_connections = 0;
    int m_listener = -1;
    std::thread m_thread;
};

// The processes of a program, the one of the service, on this test's machine; 0 when there is none.
std::vector<int> ProcessesOf(const std::string& program);
int ProcessOf(const std::string& program);
int ServiceProcess();
void KillProcess(int process);
void StopProcess(int process); // SIGSTOP
void ContinueProcess(int process);
