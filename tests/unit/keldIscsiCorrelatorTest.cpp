#include "keldDomains.h"

#include "correlatorFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

class IscsiTest : public CorrelatorTest {
protected:
    IscsiTest() : CorrelatorTest(keldIscsiDomain) {}

    // The login status as the event shows it.
    std::string Shown(const char *id, unsigned status)
    {
        Observe(MakeKel(id, "%s %s %u", "iqn.2001-04.com.example:disk1", "hba64", status));
        const Lines posted = Events();
        if (posted.size() != 1) return "nothing";
        const std::string &event = posted.front();
        return event.substr(event.rfind(' ') + 1);
    }
};

TEST_F(IscsiTest, LoginStatusIsShownAsFourHexadecimalDigits)
{
    EXPECT_EQ("0201)", Shown("kel.iscsi.target.login.error", 0x201));
    EXPECT_EQ("0000)", Shown("kel.iscsi.discovery.login.error", 0));
    EXPECT_EQ("ffff)", Shown("kel.iscsi.discovery.login.error", 0xffff));
}

TEST_F(IscsiTest, Kept_LongLoginStatusIsCutToItsFirstFourDigits)
{
    EXPECT_EQ("1234)", Shown("kel.iscsi.target.login.error", 0x12345));
    EXPECT_EQ("ffff)", Shown("kel.iscsi.discovery.login.error", 0xffffffff));
}

TEST_F(IscsiTest, FailuresNameBothSidesInTheOrderRead)
{
    Observe(MakeKel("kel.iscsi.target.login.error", "%s %s %u", "iqn.2001-04.com.example:disk1", "hba64",
                    0x201));
    Observe(MakeKel("kel.iscsi.isns.discovery.error", "%s %s %s %s", "10.0.0.7", "hba64", "timeout",
                    "no reply"));
    EXPECT_THAT(
        Events(),
        ElementsAre(
            "nox.problem.storage.iscsi.target.login.error(iqn.2001-04.com.example:disk1, hba64, 0201)",
            "nox.problem.storage.iscsi.isns.discovery.error(10.0.0.7, hba64, timeout, no reply)"));
}

TEST_F(IscsiTest, WhatTheInitiatorMendsAndWhatIsUnknownLeaveNothing)
{
    for (const char *id :
         {"kel.iscsi.connection.started", "kel.iscsi.connection.stopped", "kel.iscsi.connection.error",
          "kel.iscsi.session.recovery.timeout", "kel.iscsi.target.async.event", "kel.iscsi.unheard.of"})
        Observe(MakeKel(id, "%s %s", "iqn.2001-04.com.example:disk1", "hba64"));
    Observe(MakeKel("kel.iscsi.target.login.error", "%s %s", "iqn.2001-04.com.example:disk1", "hba64"));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}
