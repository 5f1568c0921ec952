// A client that shares no code with ours: the bytes are those of the protocol, not only those that our two sides agree
// on.
#include "private_machine.h"
#include "service_under_test.h"

TEST(ForeignClient, IsServedInEitherByteOrder) {
    const Service service;
    const std::string socket = PrivateDirectory() + "/run/rpc/" + kEndpoint;
    for (const std::string order : {"little", "big"}) {
        const ProgramResult result =
            RunProgram("/usr/bin/python3", {SourcePath("tests/service/foreign_client.py"), socket, order});
        EXPECT_EQ(result.output, "ok\n") << order << ": " << result.errors;
        Database database;
        ASSERT_EQ(database.Open("Of " + order), kDone);
        EXPECT_EQ(database.Value("V").size(), 256u * 300);
    }
}
