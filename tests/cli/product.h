// The real `oriel`, service and examples on the private machine of the test.
#pragma once

#include "private_machine.h"
#include "test_process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <vector>

using Json = nlohmann::json;
using Words = std::vector<std::string>;

ProgramResult Oriel(const Words& arguments, const Environment& environment = {});

// The same as another user, which only root can.
ProgramResult OrielAs(unsigned user, const Words& arguments);

// With --json: the one document that it must print. Fails the test when the exit code or the output is another.
Json OrielJson(Words arguments, int exitCode = 0, const Environment& environment = {});

// The output, without its last newline, of a command that must end with 0.
std::string OrielText(const Words& arguments, const Environment& environment = {});

// `get` of one variable, as it is in JSON.
Json VariableOf(const std::string& printer, const std::string& variable);
Json ValueOf(const std::string& printer, const std::string& variable);

// Waits until the printer's printer side serves direct requests.
void ExpectTakesRequests(const std::string& printer);

// A file of the test's own; its path.
std::string FileOf(const std::string& name, const std::string& text);

// "Front desk", of the example model.
inline const std::string kPrinter = "Front desk";
void AddExamplePrinter();

// `oriel up --json`, up once constructed; stopped by the destructor when the test did not.
class RunningProduct {
public:
    RunningProduct();
    ~RunningProduct();

    // The next events, which must be these; the last one.
    Json Events(const Words& names);
    Json Event(const std::string& name) { return Events({name}); }
    TestProcess& Process() { return m_up; }
    void KillService(); // and waits until it is started again

private:
    TestProcess m_up;
};

// With the example printer.
struct ExamplePrinter {
    ExamplePrinter() { AddExamplePrinter(); }
};
struct ExampleProduct : private ExamplePrinter, RunningProduct {};

// The processes of a program on this test's machine; the first one, or 0.
std::vector<int> ProcessesOf(const std::string& program);
int ProcessOf(const std::string& program);
inline constexpr const char* kServiceProgram = "TVSDBN.EXE";
inline constexpr const char* kPrinterSideProgram = "TVSPSD.EXE";
void KillProcess(int process);
