// The log of the programs that run for long.
#include "product/log.h"

#include <gtest/gtest.h>

#include <string>

using namespace product;

TEST(Log, CountsRepeatsAndKeepsMessagesToOneLine) {
    testing::internal::CaptureStderr();
    NameLog("TEST");
    Log(LogLevel::Warning, "again");
    for (int i = 0; i < 3; ++i)
        Log(LogLevel::Warning, "again");
    Log(LogLevel::Error, "again"); // of another level: another message
    Log(LogLevel::Note, "two\nlines\x1b[31m \xc3\xa4");
    Log(LogLevel::Error, std::string(kLogLineMax + 9, 'x'));
    EndLog();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "TEST: warning: again\nTEST: again\nTEST: note: two?lines?[31m \xc3\xa4\nTEST: " +
                  std::string(kLogLineMax, 'x') + "\nTEST: warning: again (3 more times)\n");
}
