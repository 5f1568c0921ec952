// The server as impacket's DCE/RPC client sees it: rpc_impacket.py.
#include "private_machine.h"
#include "rpc_kit.h"
#include "unix_stream.h"

TEST(RpcForeign, ImpacketCallsTheServer) {
    TestServer server;
    const ProgramResult result =
        RunProgram("/usr/bin/python3", {SourcePath("tests/platform/rpc_impacket.py"), EndpointPath("test")});
    if (result.exitCode == 77) GTEST_SKIP() << "python3 has no impacket (Debian: python3-impacket): " << result.output;
    EXPECT_EQ(result.exitCode, 0) << result.output << result.errors;
    EXPECT_EQ(result.output, "ok\n");
}
