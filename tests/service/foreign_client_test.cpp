// Clients that share no code with ours: the bytes are those of the protocol, not only those that our two sides agree
// on.
#include "not_here.h"
#include "private_machine.h"
#include "service_under_test.h"

TEST(ForeignClient, IsServedInEitherByteOrder) {
    NeedsTheLayer("an endpoint that is a socket");
    const Service service;
    const std::string socket = PrivateDirectory() + "/run/rpc/" + kEndpoint;
    for (const char* order : {"little", "big"}) {
        const ProgramResult result =
            RunProgram("/usr/bin/python3", {SourcePath("tests/service/foreign_client.py"), socket, order});
        EXPECT_EQ(result.output, "ok\n") << order << ": " << result.errors;
        DWORD handle = 0;
        ASSERT_EQ(OpenDatabase(std::string("Of ") + order, &handle), kDone);
        EXPECT_EQ(ValueOf(handle, "Value").size(), 256u * 300);
    }
}

// A DCE/RPC and NDR implementation of others.
TEST(ForeignClient, OfAnIndependentImplementationReadsAndWrites) {
    NeedsTheLayer("an endpoint that is a socket");
    const Service service;
    const std::string socket = PrivateDirectory() + "/run/rpc/" + kEndpoint;
    const ProgramResult result = RunProgram("/usr/bin/python3", {SourcePath("tests/service/ndr_client.py"), socket});
    EXPECT_EQ(result.output, "ok\n") << result.errors;
    DWORD handle = 0;
    ASSERT_EQ(OpenDatabase("FromPython", &handle), kDone);
    EXPECT_EQ(ValueOf(handle, "Greeting").size(), 256u * 300);
}
