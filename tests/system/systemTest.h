// The fixture of the tests that run the real daemon: a host of its own, the receiver of its events,
// and observations of the generic domain, which become one event each.
#ifndef TESTS_SYSTEM_SYSTEMTEST_H
#define TESTS_SYSTEM_SYSTEMTEST_H

#include "daemon.h"
#include "eventSink.h"
#include "observation.h"
#include "runDir.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

constexpr int kUser = KELPRODUCER_USER_CONTEXT;

class SystemTest : public testing::Test {
protected:
    void Start(const DaemonProgram &program, const Texts &arguments = {}, const Texts &environment = {})
    {
        daemon.reset();
        daemon.emplace(program, arguments, environment);
        ASSERT_TRUE(daemon->WaitUntilReady()) << daemon->Log().Raw() << daemon->Output();
    }

    // What an add-on reports, and the event that it becomes.
    static RecordBytes Report(const std::string &message)
    {
        return MakeRecord("kel.external.error", "%s %s %s", "acme-raid", "https://kb.example/1042",
                          message.c_str());
    }
    static std::string Reported(const std::string &message)
    {
        return "nox.problem.3rdParty.error(acme-raid, https://kb.example/1042, acme-raid, " + message + ")";
    }
    static Texts Reported(const Texts &messages)
    {
        Texts events;
        for (const std::string &message : messages)
            events.push_back(Reported(message));
        return events;
    }

    static void SendReport(int context, const std::string &message)
    {
        EXPECT_EQ(0, RawProducer(context).Send(Report(message)));
    }

    RunDir host;
    EventSink receiver;
    std::optional<Daemon> daemon;
};

#endif
