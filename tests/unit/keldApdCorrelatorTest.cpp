#include "keldDomains.h"

#include "correlatorFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

class ApdTest : public CorrelatorTest {
protected:
    ApdTest() : CorrelatorTest(keldApdDomain) {}
};

TEST_F(ApdTest, StateItsEndAndItsTimeOutArePosted)
{
    Observe(MakeKel("kel.storage.apd.start", "%s", "naa.6000eb3a"));
    Observe(MakeKel("kel.storage.apd.timeout", "%s %d", "naa.6000eb3a", 140));
    Observe(MakeKel("kel.storage.apd.exit", "%s", "naa.6000eb3a"));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.storage.apd.start(naa.6000eb3a)",
                                      "nox.problem.storage.apd.timeout(naa.6000eb3a, 140)",
                                      "nox.clear.storage.apd.exit(naa.6000eb3a)"));
}

TEST_F(ApdTest, WhatCannotBeReadIsDroppedWithoutAMessage)
{
    Observe(MakeKel("kel.storage.apd.timeout", "%s", "naa.6000eb3a"));
    Observe(MakeKel("kel.storage.apd.start", "%d", 7));
    Observe(MakeKel("kel.storage.apd.exit", "%s", static_cast<const char *>(nullptr)));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(ApdTest, UnknownObservationIsNamedInTheLog)
{
    Observe(MakeKel("kel.storage.apd.paused", "%s", "naa.6000eb3a"));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), ElementsAre("No correlator for kel.storage.apd.paused "));
}
