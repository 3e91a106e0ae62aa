// The swap agent with a host-control library that fails in a way it does not document.
//
// This program's own SwapInfoImpl stands in for the library's, which the linker then leaves out.
#include "eventSink.h"
#include "keldAgent.h"
#include "keldDispatch.h"
#include "keldDomains.h"
#include "logCapture.h"
#include "observation.h"
#include "runDir.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <knxctl/swapInfo.h>
#include <stdexcept>

namespace {

std::atomic<int> reconfigurations{0};
bool throwsWhatIsNoException = false;

} // namespace

namespace KnxCtl::System {

SwapInfoImpl::SwapInfoImpl() = default;
SwapInfoImpl::~SwapInfoImpl() = default;

void SwapInfoImpl::ReconfigureSysSwap(int)
{
    ++reconfigurations;
    if (throwsWhatIsNoException) throw 22;
    throw std::logic_error("swap is being reconfigured already");
}

} // namespace KnxCtl::System

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class SwapFaultTest : public testing::Test {
protected:
    void StartAgents()
    {
        ASSERT_EQ(0, KeldDispatchInit());
        KeldAgentStart(KeldCorrelator_StartSwap);
        KeldAgentStart(KeldCorrelator_StartGeneric);
        KeldAgentAwaitAll();
    }
    void TearDown() override { KeldAgentStopAll(); }

    static void DispatchRemoved()
    {
        Dispatch(
            MakeRecord("kel.swap.systemSwap.isPDL.removed",
                       "System swap at path %s was affected by the Permanent Device Loss of its datastore "
                       "and was removed.",
                       "/dsfs/volumes/datastore1/sysSwap-host7.swp"));
    }
    static void DispatchReport()
    {
        Dispatch(MakeRecord("kel.external.error", "%s %s %s", "acme-raid", "kb/1042", "rebuild"));
    }
    static void Dispatch(const RecordBytes &record)
    {
        EXPECT_EQ(0, KeldDispatch(record.data(), record.size()));
    }

    // The swap agent ends with line and is no longer served; the other one is.
    void ExpectOnlyTheSwapAgentEnds(const std::string &line)
    {
        // It ends while far more comes for it than its pipe would hold.
        for (int i = 0; i < 2000; ++i)
            DispatchRemoved();
        EXPECT_TRUE(log.WaitForLine(line)) << log.Raw();
        EXPECT_THAT(log.LinesWith("Done cleaning up agent."), SizeIs(1));
        DispatchRemoved();
        DispatchReport();
        EXPECT_THAT(events.WaitForTexts(1),
                    ElementsAre("nox.problem.3rdParty.error(acme-raid, kb/1042, acme-raid, rebuild)"));
        EXPECT_EQ(1, reconfigurations);
        EXPECT_THAT(log.LinesWith("in agent function("), SizeIs(1));
        EXPECT_THAT(events.DrainTexts(), IsEmpty());
    }

    RunDir runDir;
    EventSink events;
    LogCapture log;
};

TEST_F(SwapFaultTest, Kept_ExceptionOfAnotherKindEndsTheSwapAgentAlone)
{
    StartAgents();
    ExpectOnlyTheSwapAgentEnds("Exception (swap is being reconfigured already) in agent function(0x");
}

TEST_F(SwapFaultTest, Kept_WhatIsNoExceptionAtAllEndsTheSwapAgentAlone)
{
    throwsWhatIsNoException = true;
    StartAgents();
    ExpectOnlyTheSwapAgentEnds("Unknown exception in agent function(0x");
}

} // namespace
