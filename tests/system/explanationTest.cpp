// The explanations: what the build refuses, that the commands which they name can be typed, and how they
// are shown.

#include "catalogue.h"
#include "explanationWords.h"
#include "hostEntries.h"
#include "runDir.h"
#include "text.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kltlibs/msgfmt.h>
#include <regex>
#include <sys/wait.h>

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

class ExplanationTest : public testing::Test {
protected:
    // What the command prints on both outputs, behind its exit status and a blank.
    std::string Run(const std::string &command)
    {
        const std::string output = mRun.Path("output");
        const int status = std::system((command + " >" + output + " 2>&1").c_str());
        return std::to_string(WEXITSTATUS(status)) + " " + ReadFile(output);
    }

    const RunDir mRun;
    const std::string mCatalogueFile = KELD_BINARY_DIR "/catalogue/events.json";
    const Catalogue mCatalogue = ParseCatalogue(ReadFile(mCatalogueFile));
};

TEST_F(ExplanationTest, TheCatalogueIsNotBuiltWithATextThatIsMissingWrongOrAnothers)
{
    // clang-format off
    const char *rows[][4] = { // file, regular expression, what stands there instead, what is told
        {"apd.txt", "## nox.clear.storage.apd.exit", "## nox.clear.storage.apd.ended", "no such event"},
        {"apd.txt", "## nox.clear.storage.apd.exit", "## nox.clear.scsi.device.state.on", "another agent's"},
        {"apd.txt", "## nox.clear.storage.apd.exit", "## nox.problem.storage.apd.start", "explained twice"},
        {"apd.txt", "## nox.clear.storage.apd.exit[^]*", "", "nox.clear.storage.apd.exit has no explanation"},
        {"apd.txt", "\\{seconds\\}", "{minutes}", "{minutes} is no argument, and none of its limits"},
        {"net.txt", "\\{kel.net.pg.uplink.transition.down/delay\\}", "{delay}", "and several of its limits"},
        {"vfat.txt", "\\{uuid\\}", "it", "the object, uuid, is not named"},
        {"apd.txt", "Impact: Machines", "Machines", "no text \"Impact\""},
        {"apd.txt", "for good.", "for good. One. Two.", "Meaning is not one to 3 sentences"},
        {"apd.txt", "`keladm trace", "`keladmin trace", "names keladmin, which is not in commands.txt"},
        {"net.txt", "by\nnox.clear.net.lacp", "by\nnox.clear.net.lacq", "which does not exist"},
        {"apd.txt", "Action: Find", "Hint: None.\nAction: Find", "a text with an unknown label"},
        {"zorn.txt", "## kel.zorn[^]*", "", "not every domain says who emits"},
        {"vfat.txt", "Meaning: [^]*", "Meaning: A.\nImpact: A.\nAction: {uuid}.\n## nox.problem.vfat.filesystem.full.other\n"
         "Meaning: A.\nImpact: A.\nAction: B {uuid}.\n", "the same as vfat.txt: nox.problem.vfat.filesystem.full.scratch"},
    };
    // clang-format on
    const fs::path folder = mRun.Path("explain");
    const std::string build = KELD_BINARY_DIR "/apps/keld-catalogue --explain " + folder.string();
    fs::copy(KELD_SOURCE_DIR "/data/explain", folder);
    for (const auto &[file, text, instead, told] : rows) {
        const std::string right = ReadFile(folder / file);
        const std::string spoilt = std::regex_replace(right, std::regex(text), instead);
        ASSERT_NE(right, spoilt) << text;
        std::ofstream(folder / file) << spoilt;
        EXPECT_THAT(Run(build), testing::AllOf(testing::StartsWith("1 "), HasSubstr(told))) << instead;
        std::ofstream(folder / file) << right;
    }
}

TEST_F(ExplanationTest, EveryCommandOfKeladmThatIsNamedCanBeTyped)
{
    const std::regex command("`keladm ([^`]*)`"), option("--[a-z]+");
    std::map<std::string, std::string> helps;
    std::set<std::string> inventory;
    for (const HostEntry &entry : HostEntries())
        inventory.insert(std::regex_replace(std::string(entry.pattern), std::regex("<([a-z ]+)>"), "{$1}"));
    std::string texts;
    for (const CatalogueEvent &event : mCatalogue.events)
        texts += event.explanation.meaning + event.explanation.action;
    for (std::sregex_iterator found(texts.begin(), texts.end(), command), end; found != end; ++found) {
        const std::string words = (*found)[1];
        const std::size_t name = words.find(' ', words.starts_with("host ") ? 5 : 0);
        std::string &help = helps[words.substr(0, name)];
        if (help.empty()) help = Run(KELADM_BINARY " " + words.substr(0, name) + " --help");
        EXPECT_THAT(help, testing::StartsWith("0 ")) << words;
        for (std::sregex_iterator at(words.begin(), words.end(), option); at != end; ++at)
            EXPECT_THAT(help, HasSubstr(at->str())) << words;
        if (!words.starts_with("host ")) continue;
        const auto known = inventory.lower_bound(words.substr(name + 1)); // it, or the first below it
        EXPECT_TRUE(known != inventory.end() && known->starts_with(words.substr(name + 1))) << words;
    }
    EXPECT_EQ(3U, helps.size());
}

// Whoever builds a list of open problems relies on it: rows are driven by the catalogue's own test.
TEST_F(ExplanationTest, BothSidesOfEveryPairArePostedByARowOrInAStory)
{
    std::string stories;
    for (const auto &file : fs::directory_iterator(KELD_SOURCE_DIR "/tests/stories"))
        stories += ReadFile(file.path());
    for (const CatalogueEvent &event : mCatalogue.events) {
        if (event.clears.empty() && event.clearedBy.empty()) continue;
        const bool isRow = std::ranges::any_of(mCatalogue.observations, [&](const auto &observation) {
            return observation.note.empty() && observation.becomes == std::vector{event.type};
        });
        EXPECT_TRUE(isRow || stories.find("expect " + event.type) != std::string::npos) << event.type;
    }
}

TEST_F(ExplanationTest, AnEventIsExplainedInItsOwnWordsWithCommandsThatAreSafeToCopy)
{
    CatalogueEvent entry;
    entry.text = "%s 100%% %#lx %s";
    entry.arguments = {{"device", "string"}, {"block", "uint64"}, {"none", "string"}};
    entry.explanation = {"{device}, {block}, {none}.", "", "Type `keladm x {device}`."};
    const auto shown = [&](const char *device) {
        EventRecord event;
        event.arguments.resize(2);
        event.arguments[0].type = MSGFMT_TYPE_STRING;
        event.arguments[0].value = std::optional<std::string>(device);
        event.arguments[1].type = MSGFMT_TYPE_UINT64;
        event.arguments[1].value = std::uint64_t{255};
        return ExplanationText(entry, &event);
    };
    EXPECT_EQ("\n    Meaning     naa.6:1, 0xff, <none>.\n    Action      Type `keladm x naa.6:1`.",
              shown("naa.6:1"));
    EXPECT_EQ("\n    Meaning     $(x)\\n, 0xff, <none>.\n    Action      Type `keladm x <device>`.",
              shown("$(x)\n"));
    EXPECT_EQ("\n    Label       " + std::string(70, 'x') + "\n                `a command with blanks`",
              Folded("Label", std::string(70, 'x') + " `a command with blanks`"));
}

TEST_F(ExplanationTest, AnObservationIsExplainedByWhoEmitsItAndWhatBecomesOfIt)
{
    const std::string explain = KELADM_BINARY " explain --catalogue " + mCatalogueFile;
    const std::string down = Run(explain + " kel.net.vmnic.linkstate.down kel.net.unknown");
    for (const char *part : {"from        The network stack", "posted after 1 second unless",
                             "\n  nox.problem.net.vmnic.linkstate.down\n",
                             "ends with   nox.clear.net.vmnic.linkstate.up, of the same nic",
                             "\n\nkel.net.unknown\n", "becomes     not listed, so ignored\n"})
        EXPECT_THAT(down, HasSubstr(part));
    EXPECT_THAT(Run(explain + " nox.problem.net.connectivity.lost"),
                HasSubstr("comes from  kel.net.pg.uplink.transition.down: gathered for 2 seconds"));
    EXPECT_THAT(Run(explain + " nox.problem.nothing"), testing::StartsWith("1 keladm explain: no event"));
}

} // namespace
