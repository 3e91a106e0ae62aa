// A signal in the middle of a connection. What else happens while nobody listens is told in
// tests/stories/retries.kel.
#include "systemTest.h"

namespace {

TEST_F(SystemTest, StoppedAndContinuedItGoesOnWaitingForABusyReceiver)
{
    Start(kShippedDaemon);
    receiver.Stop();
    receiver.Start(0);
    const Texts messages{"one", "two", "three"};
    for (const std::string &message : messages)
        SendReport(4, message);
    EXPECT_TRUE(daemon->Log().WaitForLines("[nox.problem.3rdParty.error]", 2)); // the second finds no room
    for (int round = 0; round < 20; ++round)
        daemon->StopAndContinue();
    EXPECT_EQ(Reported(messages), receiver.WaitForTexts(messages.size()));
    EXPECT_EQ(Texts{}, daemon->Log().LinesWith("could not be sent"));
}

} // namespace
