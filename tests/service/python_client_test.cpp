// Clients that share no code with ours: the bytes are those of the protocol, not only those that our two sides agree
// on.
#include "private_machine.h"
#include "service_under_test.h"

#include <cstdlib>

namespace {

ProgramResult RunClient(const char* script) {
    const std::string socket = std::string(std::getenv("ORIEL_RUNTIME_DIR")) + "/rpc/" + kEndpoint;
    return RunProgram("/usr/bin/python3", {SourcePath(std::string("tests/service/") + script), socket});
}

} // namespace

TEST(PythonClient, AnIndependentImplementationReadsAndWrites) {
    const Service service;
    const ProgramResult result = RunClient("ndr_client.py");
    if (result.output.starts_with("skipped")) GTEST_SKIP() << result.output;
    EXPECT_EQ(result.output, "ok\n") << result.errors;
    DWORD handle = 0;
    ASSERT_EQ(OpenDatabase("FromPython", &handle), kDone);
    EXPECT_EQ(ValueOf(handle, "Greeting").size(), 256u * 300);
}

TEST(PythonClient, ABigEndianOneIsServed) {
    const Service service;
    const ProgramResult result = RunClient("big_endian_client.py");
    EXPECT_EQ(result.output, "ok\n") << result.errors;
    DWORD handle = 0;
    ASSERT_EQ(OpenDatabase("BigEndian", &handle), kDone);
    EXPECT_EQ(ValueOf(handle, "Value"), (Bytes{9, 8}));
}
