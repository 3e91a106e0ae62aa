// Every row of every table through the real path, and the documents that are written from the tables.

#include "correlatorFixture.h"
#include "keldDomains.h"

#include <fmt/format.h>
#include <fstream>
#include <kltlibs/msgfmt.h>
#include <set>
#include <sstream>

namespace {

// An observation as a producer of the row would send it: each text says its argument's name, each
// number its position.
struct SampleObservation {
    std::string format;
    std::vector<std::string> texts;
    std::vector<KelProducerArg> args;
    std::vector<std::string> shown; // as an event shows each argument

    explicit SampleObservation(const KeldArguments &arguments)
    {
        texts.reserve(kKeldArgumentsMax); // args point into it
        for (std::size_t i = 0; i < arguments.shape.count; ++i)
            Add(arguments.shape.at[i], arguments.names[i], i + 1);
    }

    void Add(char letter, std::string_view name, std::uint64_t number)
    {
        switch (letter) {
        case 's':
            texts.emplace_back(name);
            Push("%s ", {MSGFMT_TYPE_STRING, 0, texts.back().c_str()});
            shown.emplace_back(name);
            return;
        case 'v':
            for (std::uint64_t part = 1; part <= 9; ++part)
                Push("%x ", {MSGFMT_TYPE_UINT32, part, nullptr});
            shown.emplace_back("00000001-00000002-0003-040506070809");
            return;
        case 'D':
            Push("%ld ", {MSGFMT_TYPE_INT64, number, nullptr});
            break;
        case 'U':
            Push("%lu ", {MSGFMT_TYPE_UINT64, number, nullptr});
            break;
        case 'u':
            Push("%u ", {MSGFMT_TYPE_UINT32, number, nullptr});
            break;
        default:
            Push("%d ", {MSGFMT_TYPE_INT32, number, nullptr});
            break;
        }
        shown.push_back(std::to_string(number));
    }

    void Push(const char *conversion, KelProducerArg arg)
    {
        format += conversion;
        args.push_back(arg);
    }

    TestKel Make(const char *id) const
    {
        std::size_t length = 0;
        auto *record = static_cast<char *>(std::malloc(4096));
        EXPECT_EQ(0, KelRecord_BuildFromArgs(record, 4096, &length, kObservationTime, id, format.c_str(),
                                             args.data(), args.size()));
        Kel *kel = nullptr;
        EXPECT_EQ(0, Kel_MakeKel(record, static_cast<std::uint32_t>(length), &kel));
        return {kel, Kel_Free};
    }
};

class EveryRow : public CorrelatorTest {
protected:
    EveryRow() : CorrelatorTest(keldCorrelators[0].domain) {}
};

TEST_F(EveryRow, PostsItsEventWithItsArguments)
{
    for (const KeldCorrelatorEntry &correlator : keldCorrelators) {
        const KeldCorrelatorTable table = KeldDomainTable(correlator.domain);
        for (const Translation &row : correlator.domain.translations.rows) {
            const SampleObservation sample(row.arguments);
            KeldCorrelatorTable copy = table;
            KeldCorrelate(correlator.domain.defaultHandler, copy, sample.Make(row.id).get());
            std::vector<std::string> shown;
            for (std::size_t i = 0; i < row.event.shape.count; ++i)
                shown.push_back(sample.shown[i]);
            EXPECT_THAT(Events(), testing::ElementsAre(
                                      fmt::format("{}({})", row.event.TypeId(), fmt::join(shown, ", "))))
                << row.id;
        }
    }
}

TEST(Catalogue, NoTwoAgentsHandleTheSameObservation)
{
    std::set<std::string> seen;
    for (const KeldCorrelatorEntry &correlator : keldCorrelators)
        for (const auto &[id, handler] : KeldDomainTable(correlator.domain)) {
            EXPECT_TRUE(seen.insert(id).second) << id;
            EXPECT_NE(nullptr, handler) << id;
        }
    EXPECT_EQ(256u, seen.size());
}

std::string FileText(const std::string &file)
{
    std::ifstream stream(file);
    std::stringstream text;
    text << stream.rdbuf();
    return text.str();
}

TEST(Catalogue, CommittedDocumentIsFresh)
{
    const std::string written = FileText(KELD_BINARY_DIR "/catalogue/events.md");
    ASSERT_FALSE(written.empty());
    EXPECT_TRUE(written == FileText(KELD_SOURCE_DIR "/docs/events.md"))
        << "docs/events.md is stale: run scripts/update-docs";
}

} // namespace
