// Reports of add-on components, from either of two domains.

#include "keldDomains.h"

#include "correlatorFixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class GenericCorrelatorTest : public CorrelatorTest {
protected:
    GenericCorrelatorTest() : CorrelatorTest(keldGenericDomain) {}

    void Report(const char *id, const char *component = "acme-raid",
                const char *link = "https://kb.example/1042", const char *message = "battery low")
    {
        Observe(MakeKel(id, "%s %s %s", component, link, message));
    }
};

TEST_F(GenericCorrelatorTest, ReportNamesItsComponentTwice)
{
    Report("kel.external.warning");
    Report("kel.user.external.error");
    const std::string shown = "(acme-raid, https://kb.example/1042, acme-raid, battery low)";
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.3rdParty.warning" + shown, "nox.problem.3rdParty.error" + shown));
}

TEST_F(GenericCorrelatorTest, Kept_InformationIsAProblemAndMisspelt)
{
    Report("kel.user.external.info", "A", "B", "C");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.3rdParty.information(A, B, A, C)"));
    EXPECT_THAT(
        log.LinesWith("the steps to remedythe problem as reported by A. The message reported is: C."),
        SizeIs(1));
}

TEST_F(GenericCorrelatorTest, ReportWithANullTextIsNotPosted)
{
    Report("kel.external.warning", kNullText);
    Report("kel.external.warning", "acme-raid", kNullText);
    Report("kel.external.warning", "acme-raid", "https://kb.example/1042", kNullText);
    Observe(MakeKel("kel.external.warning", "%s %s", "acme-raid", "https://kb.example/1042"));
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(GenericCorrelatorTest, AnyOtherObservationLeavesOneTraceLine)
{
    Report("kel.user.external.critical");
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(log.Lines(), ElementsAre(HasSubstr("us: [kel.user.external.critical] acme-raid")));
}

} // namespace
