// The catalogue against the daemon: what is listed is what it makes of observations, and nothing else.

#include "systemTest.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <kltlibs/kelrecord.h>
#include <kltlibs/msgfmt.h>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

using nlohmann::json;

namespace {

namespace fs = std::filesystem;

using Arguments = std::vector<KelProducerArg>;

struct NumberType {
    std::uint32_t code;
    const char *conversion;
    std::uint64_t edge; // of what fits it
};
const std::map<std::string, NumberType> kNumbers = {
    {"int32", {MSGFMT_TYPE_INT32, "%d", std::uint64_t(INT32_MIN)}},
    {"uint32", {MSGFMT_TYPE_UINT32, "%u", UINT32_MAX}},
    {"int64", {MSGFMT_TYPE_INT64, "%ld", std::uint64_t(INT64_MIN)}},
    {"uint64", {MSGFMT_TYPE_UINT64, "%lu", UINT64_MAX}}};

// What becomes of a sample where more is shown than its arguments, or something else.
const std::map<std::string, Texts> kTelling = {
    {"kel.net.fence.port.fail", {"nox.problem.net.fence.resource.limited(-2147483645, dvPort, switch)"}},
    {"kel.iscsi.target.login.error",
     {"nox.problem.storage.iscsi.target.login.error(target, adapter, ffff)"}},
    {"kel.iscsi.discovery.login.error",
     {"nox.problem.storage.iscsi.discovery.login.error(discoveryAddress, adapter, ffff)"}},
    {"kel.uw.core.dumped", {"nox.problem.application.core.dumped(application, 1, coreFile)"}},
    {"kel.uw.core.dumpFailed", {"nox.problem.application.core.dumpFailed(application, 1)"}},
    {"kel.swap.systemSwap.isPDL.removed", {}},
    {"kel.swap.systemSwap.isPDL.cannot.remove",
     {"nox.problem.swap.systemSwap.isPDL.cannot.remove.2((invalid))"}},
    {"kel.vm.kill.unexpected.fault.failure",
     {"nox.problem.vm.kill.unexpected.fault.failure.2(path, (invalid))"}},
    {"kel.pageretire.selectedmpnthreshold.host.exceeded",
     {"nox.problem.pageretire.selectedmpnthreshold.host.exceeded(18446744073709551615, 1000)"}},
    {"kel.pageretire.mce.injected", {}},
    {"kel.quillfs.ramdisk.inodetable.full",
     {"nox.problem.quillfs.ramdisk.inodetable.full(ramdisk, directory/fileName, application)"}},
    {"kel.vfat.filesystem.full", {"nox.problem.vfat.filesystem.full.other(fileSystem, uuid)"}},
};

// These take their time, or look for a path that is not there.
bool IsSilent(const std::string &id)
{
    for (const char *gathered :
         {"kel.net.pg.", "kel.net.dvport.", "kel.net.vmnic.linkstate.", "kel.net.uplink.watchdog.",
          "kel.scsi.scsipath.pathstate.", "kel.scsi.scsipath.add", "kel.scsi.scsipath.por"})
        if (id.starts_with(gathered)) return true;
    return false;
}

// These post even though something cannot be read or is null.
bool TakesAnything(const std::string &id)
{
    return id.starts_with("kel.vm.kill.") || id == "kel.dsfs.extent.offline" ||
           id == "kel.migrate.skate.server.pending.cnx.listen.socket.shutdown";
}

std::string ReadAll(const fs::path &file)
{
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

// The arguments of an observation: texts say their names; numbers are at the edge of their types, and
// no two are the same.
Arguments SampleOf(const json &listed)
{
    Arguments arguments;
    for (std::uint64_t at = 0; at < listed.size(); ++at) {
        const auto &name = listed[at]["name"].get_ref<const std::string &>();
        const std::string type = listed[at]["type"];
        if (type == "string")
            arguments.push_back({MSGFMT_TYPE_STRING, 0, name.c_str()});
        else if (type != "uuid")
            arguments.push_back({kNumbers.at(type).code, kNumbers.at(type).edge ^ at, nullptr});
        else
            for (std::uint64_t part = 1; part <= 9; ++part)
                arguments.push_back({MSGFMT_TYPE_UINT32, part, nullptr});
    }
    return arguments;
}

// How an event shows such an argument.
std::string Shown(const json &listed, const json &argument)
{
    const auto found =
        std::ranges::find_if(listed, [&](const json &each) { return each["name"] == argument["name"]; });
    const std::string type = found->at("type"), shownAs = argument["type"];
    if (type == "string") return argument["name"];
    if (type == "uuid") return "00000001-00000002-0003-040506070809";
    const std::uint64_t value = kNumbers.at(type).edge ^ std::uint64_t(found - listed.begin());
    if (shownAs == "int32") return std::to_string(static_cast<std::int32_t>(value));
    if (shownAs == "uint32") return std::to_string(static_cast<std::uint32_t>(value));
    return shownAs == "int64" ? std::to_string(static_cast<std::int64_t>(value)) : std::to_string(value);
}

RecordBytes RecordOf(const std::string &id, const Arguments &arguments)
{
    std::string format;
    for (const KelProducerArg &argument : arguments) {
        const auto number = std::ranges::find_if(
            kNumbers, [&](const auto &each) { return each.second.code == argument.type; });
        format += number == kNumbers.end() ? "%s" : number->second.conversion;
    }
    RecordBytes record(4096);
    std::size_t length = 0;
    EXPECT_EQ(0, KelRecord_BuildFromArgs(record.data(), record.size(), &length, kObservationTime,
                                         id.c_str(), format.c_str(), arguments.data(), arguments.size()));
    record.resize(length);
    return record;
}

// Each argument missing, of the wrong kind, too large, and null.
std::vector<Arguments> Unreadable(const Arguments &right)
{
    std::vector<Arguments> all;
    for (std::size_t at = 0; at < right.size(); ++at) {
        const auto with = [&](KelProducerArg other) {
            all.push_back(right);
            all.back()[at] = other;
        };
        all.emplace_back(right.begin(), right.begin() + static_cast<std::ptrdiff_t>(at));
        if (right[at].type == MSGFMT_TYPE_STRING) {
            with({MSGFMT_TYPE_UINT64, 7, nullptr});
            with({MSGFMT_TYPE_STRING, 0, nullptr});
        } else {
            with({MSGFMT_TYPE_STRING, 0, "seven"});
            if (right[at].type == MSGFMT_TYPE_INT32 || right[at].type == MSGFMT_TYPE_UINT32)
                with({MSGFMT_TYPE_INT64, std::uint64_t{1} << 32, nullptr});
        }
    }
    return all;
}

class CatalogueTest : public SystemTest {
protected:
    CatalogueTest()
    {
        for (const json &event : catalogue["events"])
            events[event["type"]] = event;
    }

    // What a row makes of its sample, as far as that follows from the row.
    Texts ExpectedOf(const json &row) const
    {
        const std::string id = row["id"];
        if (const auto telling = kTelling.find(id); telling != kTelling.end()) return telling->second;
        if (IsSilent(id) || row["becomes"].empty()) return {};
        EXPECT_EQ(1U, row["becomes"].size()) << id;
        const json &event = events.at(row["becomes"][0]);
        Texts shown;
        for (const json &argument : event["arguments"])
            shown.push_back(Shown(row["arguments"], argument));
        return {fmt::format("{}({})", event["type"].get<std::string>(), fmt::join(shown, ", "))};
    }

    // Sends them through the next context, in one batch.
    void Observe(const std::vector<RecordBytes> &records)
    {
        RecordBytes batch;
        for (const RecordBytes &record : records)
            batch.insert(batch.end(), record.begin(), record.end());
        EXPECT_EQ(0, RawProducer(context).Send(batch));
        context = (context + 1) % (kUser + 1);
    }

    const json catalogue = json::parse(ReadAll(fs::path(KELD_BINARY_DIR) / "catalogue" / "events.json"));
    std::map<std::string, json> events;
    int context = 0;
};

TEST_F(CatalogueTest, EveryObservationBecomesWhatIsListedAndWhatCannotBeReadBecomesNothing)
{
    Start(kHandClockDaemon);
    std::set<std::string> ids; // of which none is listed twice
    for (const json &row : catalogue["observations"]) {
        const std::string id = row["id"];
        const Arguments right = SampleOf(row["arguments"]);
        std::vector<RecordBytes> records;
        if (!TakesAnything(id))
            for (const Arguments &arguments : Unreadable(right))
                records.push_back(RecordOf(id, arguments));
        records.push_back(RecordOf(id, right));
        Observe(records);
        EXPECT_TRUE(daemon->Log().WaitForLines("us: [" + id + "] ", records.size())) << id;
        const Texts expected = ExpectedOf(row);
        ASSERT_EQ(expected, receiver.WaitForTexts(expected.size())) << id;
        ids.insert(id);
    }
    EXPECT_EQ(256U, ids.size());

    const char *volatile none = nullptr; // the compiler would see the null otherwise
    Observe({MakeRecord("kel.vm.kill.unexpected.forcefulPageRetire.64", "%s %lu", none, 7UL),
             MakeRecord("kel.vm.kill.unexpected.forcefulPageRetire.64", "%s", "web01"),
             MakeRecord("kel.vm.kill.unexpected.noSwapResponse", " ")});
    EXPECT_EQ((Texts{"nox.problem.vm.kill.unexpected.forcefulPageRetire.64.2((null), 7)",
                     "nox.problem.vm.kill.unexpected.forcefulPageRetire.64.2((null), 0)",
                     "nox.problem.vm.kill.unexpected.noSwapResponse.2((null), 0, 0)"}),
              receiver.WaitForTexts(3));
    Observe({MakeRecord("kel.dsfs.extent.offline", "%s %s", none, "gold")});
    EXPECT_EQ(Texts{"nox.problem.dsfs.extent.offline(, gold)"}, receiver.WaitForTexts(1));
    Observe({MakeRecord("kel.migrate.skate.server.pending.cnx.listen.socket.shutdown", "%s", none)});
    EXPECT_EQ(Texts{"nox.problem.migrate.skate.server.pending.cnx.listen.socket.shutdown(unknown)"},
              receiver.WaitForTexts(1));
    EXPECT_EQ(Texts{}, daemon->Log().LinesWith("Done cleaning up agent"));
}

TEST_F(CatalogueTest, EveryMarkedTextOfTheSourcesIsListed)
{
    static const std::regex marker(R"(@&!\*@\*@\((nox\.(problem|audit|clear)\.[A-Za-z0-9._]+)\))");
    std::map<std::string, std::string> posted, listed; // with their classes
    for (const auto &file : fs::recursive_directory_iterator(fs::path(KELD_SOURCE_DIR) / "apps" / "keld")) {
        if (!file.is_regular_file() || file.path().stem() == "keldTestCorrelator") continue;
        const std::string text = ReadAll(file);
        for (std::sregex_iterator found(text.begin(), text.end(), marker), end; found != end; ++found)
            posted[(*found)[1]] = (*found)[2];
    }
    for (const auto &[type, event] : events)
        listed[type] = event["class"];
    EXPECT_EQ(posted, listed);
}

} // namespace
