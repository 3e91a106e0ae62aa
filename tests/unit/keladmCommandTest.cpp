// The program as its users run it: exit statuses, closed pipes, full disks, a scenario played and compared.

#include "runDir.h"
#include "text.h"

#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class KeladmCommandTest : public testing::Test {
protected:
    KeladmCommandTest()
    {
        setenv("KELADM", KELADM_BINARY, 1);
        setenv("KELD_DAEMON", KELD_BINARY, 1);
        setenv("KELD_CATALOGUE", mRun.Path("events.json").c_str(), 1);
        WriteFile("events.json", R"({"version": 1, "events": [], "observations": [
            {"id": "kel.net.vmnic.linkstate.down", "domain": "net", "object": "nic",
             "arguments": [{"name": "nic", "type": "string"}],
             "becomes": ["nox.problem.net.vmnic.linkstate.down"]}]})");
    }

    void WriteFile(const std::string &name, const std::string &text)
    {
        std::ofstream(mRun.Path(name)) << text;
    }

    // Runs a shell's command, "$KELADM" being the program: its exit status, a blank, and all its output.
    std::string Run(const std::string &command)
    {
        const std::string output = mRun.Path("output");
        int status = std::system(("cd '" + mRun.Path() + "' && { " + command + "\n} >output 2>&1").c_str());
        return std::to_string(WEXITSTATUS(status)) + " " + ReadFile(output);
    }

    RunDir mRun;
};

} // namespace

TEST_F(KeladmCommandTest, WhatCannotBeDoneHasItsStatusAndItsReason)
{
    WriteFile("empty.scenario", "pause 60s\n");
    const std::pair<const char *, const char *> rows[] = {
        {"$KELADM recieve", "2 keladm: \"recieve\" is no subcommand"},
        {"$KELADM receive --count -1", "2 keladm receive: --count: \"-1\" is not a number from 1 up"},
        {"$KELADM trace --timeout 5x", "2 keladm trace: --timeout: \"5x\" is no time such as 5s"},
        {"$KELADM replay --speed 0 -", "2 keladm replay: --speed: \"0\" is not a number above 0"},
        {"$KELADM recieve --help", "2 keladm: \"recieve\" is no subcommand"},
        {"$KELADM replay --daemon /bin/true empty.scenario", "2 keladm replay: --daemon requires --check"},
        {"$KELADM replay --check empty.scenario", "2 keladm replay: empty.scenario: nothing to check"},
        {"$KELADM replay --check /dev/zero", "1 keladm replay: /dev/zero: more than 16 MiB"},
        {"$KELADM send kel.net.vmnic.linkstate.down vmnic0", "3 keladm send: no daemon serves "},
        {"$KELADM send kel.x", "2 keladm send: \"kel.x\" is no observation that the daemon knows"},
        {"$KELADM send --force kel.x", "3 keladm send: no daemon serves "},
        {"$KELADM events --names 'nox.problem.net.*down'", "0 kel.net.vmnic.linkstate.down\n"},
        {"$KELADM receive --timeout 1ms --count 1 <&- >&- 2>&-", "1 "},
        {"KALTOR_RUN_DIR=run $KELADM receive", "2 keladm receive: KALTOR_RUN_DIR is \"run\""},
        {"$KELADM host set swap/reconfigured -- -1", "2 keladm host set: swap/reconfigured"},
        {"$KELADM host get swap/failure", "1 keladm host get: swap/failure: absent"},
        {"$KELADM host set swap/failure x && $KELADM host list >/dev/full",
         "1 keladm host list: cannot write the output: No space left"},
        {"$KELADM host list --json", "0 {\"name\":\"swap/failure\",\"value\":\"x\"}\n"},
        {"$KELADM host set storage/paths/hba1%2F4 naa.6 && cat host/storage/paths/hba1%2F4 && "
         "$KELADM host remove storage",
         "2 naa.6\nkeladm host remove: storage: a directory; nothing was removed. With --recursive, this "
         "would "
         "go with it:\n  storage/paths/hba1%2F4\n"},
        {"$KELADM host remove --recursive storage && $KELADM host remove storage",
         "1 keladm host remove: storage: absent"},
        {"$KELADM receive --timeout 1ms", "0 "},
        {"$KELADM receive --count 1 --timeout 1ms", "1 keladm receive: 0 of 1 events came"},
        {"echo 'expect none within 1s' | $KELADM replay --check --daemon /bin/false -",
         "1 keladm replay: the daemon did not start: status 1"}};
    for (const auto &[command, told] : rows)
        EXPECT_THAT(Run(command), StartsWith(told)) << command;
}

TEST_F(KeladmCommandTest, TheCommittedCompletionIsThePresentOne)
{
    const std::string committed = std::string(KELD_SOURCE_DIR) + "/packaging/keladm.bash-completion";
    EXPECT_EQ("0 " + ReadFile(committed), Run("$KELADM completion bash"));
    WriteFile("complete", "source '" + committed + R"('; PATH=$PWD:$PATH; ln -s $KELADM keladm
        $KELADM host set storage/paths/hba1:C0:T0:L4 naa.6 && $KELADM host set 'net/portgroups/Prod Net' vSwitch0
        t() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _keladm; echo "${COMPREPLY[*]}"; }
        t keladm com; t keladm receive --ca; t keladm send kel.n
        t keladm trace --match kel.n; t keladm host get net/portgroups/; t keladm host list st
        t keladm host remove storage/paths/hba1 : C0 : T; t keladm host set vm)");
    EXPECT_EQ("0 completion\n--catalogue\nkel.net.vmnic.linkstate.down\nkel.net.vmnic.linkstate.down\n"
              "net/portgroups/Prod\\ Net\nstorage/\nT0:L4\nvms/ vms/\n",
              Run("bash complete"));
}

// A file and a pipe get what there is; what it would do to a terminal does not come there.
TEST_F(KeladmCommandTest, NoTextReachesATerminalAsACommand)
{
    const std::string evil = "\x1b]0;x\a\x1b[31m\xC2\x9B\x9B\xE2\x80\xAE";
    const std::string get = "$KELADM host get vms/12/name";
    ASSERT_EQ("0 ", Run("$KELADM host set vms/12/name '" + evil + "'"));
    EXPECT_EQ("0 " + evil + "\n", Run(get));
    EXPECT_EQ("0 \\x1b]0;x\\x07\\x1b[31m\\u009b\\x9b\\u202e\n",
              Run("script -qec '" + get + "' /dev/null | tr -d '\\r'"));
    EXPECT_THAT(Run("$KELADM host list --json"),
                HasSubstr("\"value\":{\"hex\":\"1b5d303b78071b5b33316dc29b9be280ae\"}"));
    EXPECT_THAT(Run("$KELADM host get 'vms/12/" + evil + "'"),
                StartsWith("2 keladm host get: vms/12/\\x1b]0;x\\x07"));
}

TEST_F(KeladmCommandTest, ACommandOfAnotherPackageIsAProgramOfItsOwn)
{
    EXPECT_EQ("1 keladm: why is in the package keld-record, which is not installed\n",
              Run("mkdir -p bin libexec/keld && cp $KELADM bin && bin/keladm why"));
    EXPECT_EQ("5 2 --json a b\n", Run("P=libexec/keld/keladm-why; echo '#!/bin/sh' >$P; chmod +x $P\n"
                                      "echo 'echo $# $*; exit 5' >>$P; bin/keladm why --json 'a b'"));
}

TEST_F(KeladmCommandTest, ADifferenceIsShownWithWhatCameInstead)
{
    WriteFile("link.scenario", "observe kel.net.vmnic.linkstate.down vmnic0\n"
                               "observe kel.net.vmnic.linkstate.down vmnic2\n"
                               "expect within 60s nox.problem.* vmnic2\n"
                               "expect within 0s nox.problem.net.vmnic.linkstate.down vmnic1\n");
    EXPECT_THAT(
        Run("mkdir t; TMPDIR=$PWD/t $KELADM replay --check link.scenario; s=$?; rmdir t && exit $s"),
        testing::AllOf(StartsWith("1 "), HasSubstr("FAILED    line 4: expect within 0s"),
                       HasSubstr("\n              nox.problem.net.vmnic.linkstate.down vmnic0\n"
                                 "                argument 1 is \"vmnic0\", not \"vmnic1\"\n"),
                       HasSubstr("FAILED: 1 of 2 expectations met")));
}

// A failing story shows what was expected beside what came; the next one is played all the same.
TEST_F(KeladmCommandTest, AStoryThatGoesAnotherWayShowsBothSides)
{
    WriteFile("link.kel", "host mkdir kernel/nodes/net/pNics/vmnic0\n"
                          "story Another NIC.\n"
                          "observe kel.net.vmnic.linkstate.down vmnic0\n"
                          "clock +2s\n"
                          "expect nox.problem.net.vmnic.linkstate.down vmnic1\n"
                          "story Nobody expects it.\n"
                          "observe kel.net.vmnic.linkstate.down vmnic0\n"
                          "clock +2s\n"
                          "story In another order.\n"
                          "receiver deaf\n"
                          "observe kel.external.error acme https://kb.example/1 one\n"
                          "observe kel.external.error acme https://kb.example/1 two\n"
                          "receiver back\n"
                          "expect nox.problem.3rdParty.error acme https://kb.example/1 acme two\n"
                          "expect nox.problem.3rdParty.error acme https://kb.example/1 acme one\n"
                          "story A line too many.\n"
                          "observe kel.clock.x 1\n"
                          "log none\n"
                          "story All is well.\n"
                          "observe kel.clock.x 1\n"
                          "log No system clock correlator\n"
                          "log none\n");
    const std::string play = "$KELADM replay --check --daemon " KELD_LAB_BINARY " link.kel";
    EXPECT_EQ(
        "1 FAILED  line 2: Another NIC.\n"
        "    line 4: clock +2s\n"
        "      expected  line 5: expect nox.problem.net.vmnic.linkstate.down vmnic1\n"
        "      came      nox.problem.net.vmnic.linkstate.down vmnic0 (argument 1 is \"vmnic0\", not "
        "\"vmnic1\")\n"
        "FAILED  line 6: Nobody expects it.\n"
        "    line 8: clock +2s\n"
        "      came      nox.problem.net.vmnic.linkstate.down vmnic0\n"
        "      expected  nothing\n"
        "FAILED  line 9: In another order.\n"
        "    line 13: receiver back\n"
        "      expected  line 14: expect nox.problem.3rdParty.error acme https://kb.example/1 acme two\n"
        "      came      nox.problem.3rdParty.error acme https://kb.example/1 acme two (behind another one "
        "of "
        "GenericCorrelator)\n"
        "FAILED  line 16: A line too many.\n"
        "    line 17: observe kel.clock.x 1\n"
        "      expected  line 18: log none\n"
        "      came      log No system clock correlator for kel.clock.x\n"
        "ok      line 19: All is well.\n"
        "FAILED: 1 of 5 stories\n",
        Run(play));
    EXPECT_EQ("0 ok      line 19: All is well.\nok: 1 of 1 stories\n", Run(play + " --story well"));
    EXPECT_EQ("0 ok      line 19: All is well.\nok: 1 of 1 stories\n", Run(play + " --story 21"));
    EXPECT_THAT(Run("$KELADM replay link.kel"),
                StartsWith("2 keladm replay: a story is played with --check alone"));
}

TEST_F(KeladmCommandTest, AStoryWhoseDaemonEndsSaysHow)
{
    WriteFile("stop.kel", "story It cannot start.\nclock +1s\nexpect none\n");
    EXPECT_THAT(
        Run("$KELADM replay --check --daemon /bin/false stop.kel"),
        HasSubstr("    line 1: It cannot start.\n                the daemon ended early: status 1"));
}

TEST_F(KeladmCommandTest, TheLaboratoryIsNobodysService)
{
    for (const char *directory : {"", "/var/run/kaltor", "/run/../var/run/kaltor/", "lab"})
        EXPECT_EQ("2 keld-lab: KALTOR_RUN_DIR must name a run directory of its own, not the service's "
                  "/var/run/kaltor\n",
                  Run(std::string("KALTOR_RUN_DIR=") + directory + " KELD_LAB_FD=0 " KELD_LAB_BINARY));
}
