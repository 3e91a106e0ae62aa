// The link that names the scratch partition. What else becomes of a full file system is told in
// tests/stories/vfat-quillfs.kel.
#include "correlatorFixture.h"
#include "keldDomains.h"

#include <filesystem>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class VfatCorrelatorTest : public CorrelatorTest {
protected:
    VfatCorrelatorTest() : CorrelatorTest(keldVfatDomain)
    {
        EXPECT_STREQ("/scratch", keldVfatScratchLink);
        keldVfatScratchLink = mLink.c_str();
    }

    void LinkScratch(const std::string &target)
    {
        std::filesystem::remove(mLink);
        std::filesystem::create_symlink(target, mLink);
    }

    void ObserveFull(const char *uuid)
    {
        Observe(MakeKel("kel.vfat.filesystem.full", "%s %s", "vfat1", uuid));
    }

private:
    const std::string mLink = runDir.Path("scratch");
};

TEST_F(VfatCorrelatorTest, ScratchIsTheFileSystemThatTheLinkLeadsTo)
{
    LinkScratch("/dsfs/volumes/5f3a1b2c-0004d2e7-00ab-001b21c00fff");
    ObserveFull("5f3a1b2c-0004d2e7-00ab-001b21c00fff");
    ObserveFull("001b21c00fff");
    EXPECT_THAT(Events(),
                ElementsAre(HasSubstr("nox.problem.vfat.filesystem.full.scratch(vfat1, 5f3a1b2c-"),
                            "nox.problem.vfat.filesystem.full.other(vfat1, 001b21c00fff)"));

    LinkScratch("001b21c00fff"); // moved, and without a directory
    clock.Advance(301);
    ObserveFull("5f3a1b2c-0004d2e7-00ab-001b21c00fff");
    ObserveFull("001b21c00fff");
    EXPECT_THAT(Events(), ElementsAre(HasSubstr("full.other(vfat1, 5f3a1b2c-"),
                                      "nox.problem.vfat.filesystem.full.scratch(vfat1, 001b21c00fff)"));
}

} // namespace
