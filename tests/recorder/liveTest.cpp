// The recorder as a process, with the daemon as it is shipped; and a shell that completes.

#include "recordingFixture.h"

#include "daemon.h"
#include "observation.h"
#include "waitFor.h"

using testing::HasSubstr;
using testing::MatchesRegex;

TEST_F(RecordingTest, ADaemonIsRecordedUntilItsEnd)
{
    ASSERT_EQ("0 ", Run("timeout 300 $KELADM record 2>told & echo $! >pid"));
    {
        Daemon daemon(kShippedDaemon);
        ASSERT_TRUE(daemon.WaitUntilReady());
        ASSERT_TRUE(WaitUntil(
            [&] { return ReadFile(mRun.Path("told")).find("listening to keld") != std::string::npos; }));
        Send(22, "kel.net.portset.port.full", "Portset %s is full (%d ports)", "vSwitch0", 128);
        mRun.Host("net/portgroups/web", "vSwitch0");
        // A daemon that is stopped leaves what stands in its sockets and pipes.
        EXPECT_TRUE(WaitUntil([&] {
            const std::string log = Run("$KELADM log --since -1d");
            return log.find("posted, e1") != std::string::npos &&
                   log.find("receiver ") != std::string::npos &&
                   log.find("portgroups") != std::string::npos;
        }));
        EXPECT_EQ(0, daemon.Terminate());
    }
    EXPECT_TRUE(
        WaitUntil([&] { return Run("$KELADM log --since -1d").find("r1 ended") != std::string::npos; }));
    EXPECT_EQ("0 ", Run("kill $(cat pid); while kill -0 $(cat pid) 2>/dev/null; do :; done"));
    const std::string log = Run("$KELADM log --since -1d");
    EXPECT_THAT(log,
                HasSubstr("o1  kel.net.portset.port.full  vSwitch0, 128  -> NetCorrelator: posted, e1\n"));
    EXPECT_THAT(log, HasSubstr("e1  nox.problem.net.portset.port.full  Portset vSwitch0 has reached"));
    EXPECT_THAT(log, HasSubstr("host           net/portgroups/web = vSwitch0\n"));
    EXPECT_THAT(log, HasSubstr("receiver       the receiver took no event, and still takes none\n"));
    EXPECT_THAT(log, HasSubstr("daemon         r1 ended as it should\n"));
}

TEST_F(RecordingTest, AShellCompletesWhatWasRecorded)
{
    mJournal.Hello(100).Begin();
    mJournal.In(1, "kel.scsi.scsipath.pathstate.dead", {"hba1:C0:T0:L4", "on"});
    Record();
    auto complete = [this](const std::string &line) {
        return Run("bash -c 'source \"$0\"; PATH=" +
                   std::string(KELADM_BINARY).substr(0, std::string(KELADM_BINARY).rfind('/')) +
                   ":$PATH; COMP_LINE=\"" + line +
                   "\"; COMP_POINT=${#COMP_LINE}; COMP_WORDS=($COMP_LINE); "
                   "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _keladm; echo \"${COMPREPLY[*]}\"' '" +
                   KELD_SOURCE_DIR "/packaging/keladm.bash-completion'");
    };
    EXPECT_EQ("0 C0:T0:L4\n", complete("keladm log --object hba1:C"));
    EXPECT_EQ("0 kel.scsi.scsipath.pathstate.dead\n", complete("keladm why kel.scsi.scsipath.pathstate.d"));
    EXPECT_EQ("0 --summary\n", complete("keladm log --su"));
}
