// What the documents promise, against what the programs do.
#include "systemTest.h"
#include "traceClient.h"

#include <filesystem>
#include <fstream>
#include <hostEntries.h>
#include <kltlibs/journalrecord.h>
#include <regex>
#include <set>
#include <sstream>
#include <statusFormats.h>

namespace {

namespace fs = std::filesystem;

std::string ReadAll(const fs::path &file)
{
    std::stringstream text;
    text << std::ifstream(file).rdbuf();
    EXPECT_FALSE(text.str().empty()) << file;
    return text.str();
}

std::string Document(const std::string &name) { return ReadAll(fs::path(KELD_SOURCE_DIR) / "docs" / name); }

// The first fenced block behind a heading.
std::string Example(const std::string &document, const std::string &heading)
{
    const std::size_t section = document.find("\n## " + heading + "\n");
    const std::size_t start = document.find("```\n", section) + 4;
    const std::size_t end = document.find("```", start);
    EXPECT_NE(std::string::npos, section) << heading;
    EXPECT_NE(std::string::npos, end) << heading;
    return end == std::string::npos ? "" : document.substr(start, end - start);
}

// The bytes of a dump: where they are, the bytes in hexadecimal, and behind a ";" what they mean.
RecordBytes Dump(const std::string &text)
{
    RecordBytes bytes;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find(';')));
        std::size_t at = 0;
        words >> at;
        EXPECT_LE(bytes.size(), at) << line;
        bytes.resize(at); // zeros
        for (std::string byte; words >> byte;)
            bytes.push_back(static_cast<std::byte>(std::stoi(byte, nullptr, 16)));
    }
    return bytes;
}

class DocumentTest : public SystemTest {
protected:
    const std::string formats = Document("formats.md");
};

TEST_F(DocumentTest, TheExampleIsWhatTheEncoderBuilds)
{
    EXPECT_EQ(MakeRecord("kel.net.portset.port.full", "Portset %s is full (%d ports)", "vSwitch0", 128),
              Dump(Example(formats, "The observation record")));
}

TEST_F(DocumentTest, TheExampleBecomesTheEventAndTheTraceLinesBelowIt)
{
    host.Host("kernel/nodes/system/systemUuid", "4c4c4544-0042-3510-8053-b7c04f533232");
    Start(kHandClockDaemon);
    ASSERT_EQ(0, RawProducer(2).Send(Dump(Example(formats, "The observation record"))));
    const auto events = receiver.WaitForRaw(1);
    ASSERT_EQ(1U, events.size());
    EXPECT_EQ(Dump(Example(formats, "The event record")), events[0]);

    TraceClient trace(host.Path("keld-trace.sock"));
    std::istringstream lines(Example(formats, "Trace lines"));
    for (std::string line; std::getline(lines, line);)
        EXPECT_EQ(line, trace.Line());
    EXPECT_EQ("", trace.Line());
}

TEST_F(DocumentTest, TheJournalsExampleIsWhatIsWritten)
{
    std::string written;
    Journal_Append(&written, 11, 1772366400000000, JournalFateEntry{{0, 1}, JournalFate::Posted, ""});
    Journal_Append(&written, 12, 1772366400000000, JournalDeliveryEntry{1, JournalDelivery::Delivered, 1});
    const auto bytes = std::as_bytes(std::span(written));
    EXPECT_EQ(RecordBytes(bytes.begin(), bytes.end()), Dump(Example(formats, "The journal")));
}

TEST_F(DocumentTest, TheStatusFileIsReadAsItSays)
{
    RecordBytes bytes = Dump(Example(formats, "The status file"));
    bytes.resize(sizeof(KeldStatusFile));
    const auto report = StatusJson(JudgeStatus(DecodeStatusFile(bytes), {}, ""));
    EXPECT_EQ(R"([{"name":"SCSICorrelator","alive":true,"stands":"posting, waits for the receiver",)"
              R"("seconds":0.0,"received":25,"waiting":1,"fates":{"posted":24}}])",
              report["agents"].dump());
    EXPECT_EQ(R"({"delivered":24})", report["events"].dump());
}

TEST_F(DocumentTest, TheListOfEventsIsTheCataloguesOwn)
{
    EXPECT_TRUE(ReadAll(KELD_BINARY_DIR "/catalogue/events.md") == Document("events.md"))
        << "docs/events.md is stale: run scripts/update-docs";
}

TEST_F(DocumentTest, TheScenarioComesOutAsItSays)
{
    const std::string file = host.Path("documented.kel");
    for (const auto &[section, program] :
         {std::pair("Scenarios", KELD_BINARY), std::pair("Stories", KELD_LAB_BINARY)}) {
        std::ofstream(file) << Example(formats, section);
        const std::string check = std::string(KELADM_BINARY " replay --check --daemon ") + program;
        EXPECT_EQ(0, std::system((check + " " + file + " >/dev/null").c_str())) << section;
    }
}

TEST_F(DocumentTest, TheInventoryIsTheOneThatKeladmKnows)
{
    std::set<std::string> known;
    for (const HostEntry &entry : HostEntries())
        known.insert(std::string(entry.pattern));
    std::set<std::string> documented;
    const std::size_t section = formats.find("\n## The host inventory\n");
    const std::string table = formats.substr(section, formats.find("\n## ", section + 1) - section);
    const std::regex row("\n\\| `([^`]+)`");
    for (std::sregex_iterator match(table.begin(), table.end(), row), end; match != end; ++match)
        documented.insert((*match)[1]);
    EXPECT_EQ(known, documented);
}

// Literals of the daemon and the library that go to the log.
std::set<std::string> LogFormats()
{
    const std::regex call(
        R"re((?:KeldLog|Panic|KltDiagnose|\.failed = )[({]+\s*((?:"(?:[^"\\]|\\.)*"[,\s]*)+))re");
    const std::regex literal(R"re("((?:[^"\\]|\\.)*)"(,?))re");
    std::set<std::string> formats;
    for (const char *folder : {"apps/keld", "lib"})
        for (const auto &file : fs::recursive_directory_iterator(fs::path(KELD_SOURCE_DIR) / folder)) {
            if (file.path().extension() != ".cpp") continue;
            const std::string source = ReadAll(file);
            for (std::sregex_iterator found(source.begin(), source.end(), call), end; found != end;
                 ++found) {
                const std::string literals = (*found)[1];
                std::string text;
                for (std::sregex_iterator part(literals.begin(), literals.end(), literal); part != end;
                     ++part) {
                    text += (*part)[1];
                    if ((*part)[2] == "" && std::next(part) != end) continue; // goes on in the next one
                    formats.insert(std::regex_replace(text, std::regex(R"( *\\n$)"), ""));
                    text.clear();
                }
            }
        }
    return formats;
}

TEST_F(DocumentTest, EveryLineOfTheLogIsExplained)
{
    const std::string operations = Document("operations.md");
    const auto logged = LogFormats();
    EXPECT_LT(40U, logged.size());
    for (std::string format : logged) {
        format = std::regex_replace(format, std::regex(R"(\\")"), "\"");
        if (format == "%s") continue; // another's text
        EXPECT_NE(std::string::npos, operations.find("`" + format)) << format;
    }
}

} // namespace
