#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "util/Log.h"

namespace korvo {
namespace {

// A client's text cannot break a log line or smuggle terminal controls in.
TEST(LogTest, ControlCharactersInALineAreEscaped) {
    test::LogCapture log;
    logMessage(LOG_NOTICE, "configPath: %s", "/tmp/a\nError: forged line\r\t\x1b[2J\x7f.conf");
    logMessage(LOG_NOTICE, "plain %s", "/tmp/b.conf");
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "configPath: /tmp/a\\nError: forged line\\r\\t\\x1b[2J\\x7f.conf");
    EXPECT_EQ(lines[1], "plain /tmp/b.conf");
}

}  // namespace
}  // namespace korvo
