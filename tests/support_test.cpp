// The shared test support itself: a trace check that fails says what it
// looked for and what the ring holds.
#include "fixture.h"

class TraceCheckTest : public LibraryTest {};

TEST_F(TraceCheckTest, AMissingRecordIsNamedBesideTheNewestRecords) {
    EXPECT_EQ(CfgUtilBuildPath(nullptr, nullptr), nullptr);
    EXPECT_TRUE(traced("CFGUTIL", 1, "CfgUtilBuildPath passed null stanza file"));
    const ::testing::AssertionResult missing = traced("CFGUTIL", 1, "another text");
    EXPECT_FALSE(missing);
    const std::string message = missing.message();
    EXPECT_NE(message.find("no record CFGUTIL:1 \"another text\""), std::string::npos) << message;
    EXPECT_NE(message.find("CFGUTIL:1 \"CfgUtilBuildPath passed null stanza file\""), std::string::npos) << message;
}
