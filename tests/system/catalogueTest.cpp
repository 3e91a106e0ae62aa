// The catalogue against the real daemon: everything that is listed is posted, and nothing else.

#include "systemTest.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <gmock/gmock.h>
#include <kltlibs/msgfmt.h>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <scenario.h>
#include <set>
#include <sstream>

using nlohmann::json;

namespace {

std::string ReadAll(const std::filesystem::path &file)
{
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

// The event types in a source file's marked texts.
std::set<std::string> PostedBy(const std::filesystem::path &file)
{
    static const std::regex marker(R"(@&!\*@\*@\((nox\.[A-Za-z0-9._]+)\))");
    const std::string text = ReadAll(file);
    std::set<std::string> types;
    for (std::sregex_iterator found(text.begin(), text.end(), marker), end; found != end; ++found)
        types.insert((*found)[1]);
    return types;
}

Texts Without(const std::set<std::string> &all, const std::set<std::string> &some)
{
    Texts rest;
    std::ranges::set_difference(all, some, std::back_inserter(rest));
    return rest;
}

const std::filesystem::path kDaemonSources = std::filesystem::path(KELD_SOURCE_DIR) / "apps" / "keld";
constexpr const char *kSelftestSource = "keldTestCorrelator.cpp"; // no agent of the shipped daemon's

// What cannot be had from a host whose devices all have names; KeldScsiCorrelatorTest posts it.
const std::set<std::string> kUnreachable = {"nox.problem.storage.connectivity.devicepor"};

// What a sample of each observation, with any arguments, does not lead to. Time passes while an event
// is waited for.
constexpr const char *kStory = R"(
host set net/portgroups/Production vSwitch0
host set net/portgroups/Migration    vSwitch0
host set net/portgroups/Backup     vSwitch0
host mkdir kernel/nodes/net/pNics/vmnic3
observe kel.net.pg.uplink.transition.down "%s %s %d %d" vmnic0 Production 0 1
observe kel.net.pg.uplink.transition.down "%s %s %d %d" vmnic0 Migration 1 2
observe kel.net.pg.uplink.transition.down "%s %s %d %d" vmnic0 Backup 2 3
observe kel.net.dvport.uplink.transition.down "%s %s %s %d %d" vmnic0 dvs-storage 17 0 1
observe kel.net.dvport.uplink.transition.down "%s %s %s %d %d" vmnic0 dvs-storage 18 1 2
observe kel.net.dvport.uplink.transition.down "%s %s %s %d %d" vmnic0 dvs-storage 19 2 3
expect within 60s nox.problem.net.connectivity.lost vSwitch0 vmnic0 Production
expect within 60s nox.problem.net.redundancy.lost vSwitch0 vmnic0 Migration
expect within 60s nox.problem.net.redundancy.degraded vSwitch0 vmnic0 Backup
expect within 60s nox.problem.net.dvport.connectivity.lost dvs-storage/17 vmnic0
expect within 60s nox.problem.net.dvport.redundancy.lost dvs-storage/18 vmnic0
expect within 60s nox.problem.net.dvport.redundancy.degraded dvs-storage/19 vmnic0
observe kel.net.pg.uplink.transition.up "%s %s %d" vmnic0 Production 1
observe kel.net.pg.uplink.transition.up "%s %s %d" vmnic0 Migration 2
observe kel.net.dvport.uplink.transition.up "%s %s %s %d" vmnic0 dvs-storage 17 1
observe kel.net.dvport.uplink.transition.up "%s %s %s %d" vmnic0 dvs-storage 18 2
expect within 60s nox.clear.net.connectivity.restored vSwitch0 Production vmnic0
expect within 60s nox.clear.net.redundancy.restored vSwitch0 Migration vmnic0
expect within 60s nox.clear.net.dvport.connectivity.restored dvs-storage/17 vmnic0
expect within 60s nox.clear.net.dvport.redundancy.restored dvs-storage/18 vmnic0

observe kel.net.vmnic.linkstate.down "%s" vmnic1
expect within 60s nox.problem.net.vmnic.linkstate.down vmnic1
observe kel.net.vmnic.linkstate.up "%s" vmnic1
expect within 60s nox.clear.net.vmnic.linkstate.up vmnic1
observe kel.net.uplink.watchdog.timeout "%s" vmnic2
observe kel.net.pg.uplink.transition.down "%s %s %d %d" vmnic2 Migration 1 2
observe kel.net.pg.uplink.transition.up "%s %s %d" vmnic2 Migration 2
expect within 60s nox.problem.net.vmnic.watchdog.reset vmnic2
host set kernel/options/Net/LinkFlappingThreshold 3
repeat 4
    observe kel.net.vmnic.linkstate.down "%s" vmnic3
    observe kel.net.vmnic.linkstate.up "%s" vmnic3
end
expect within 60s nox.problem.net.vmnic.linkstate.flapping vmnic3
observe kel.net.fence.port.fail "%s %s %d %d" 17 dvs-storage FENCE_ID 5
expect within 60s nox.problem.net.fence.port.badfenceid 5 17 dvs-storage
observe kel.net.fence.port.fail "%s %s %d %d" 17 dvs-storage FENCE_PROPERTY 5
expect within 60s nox.problem.net.fence.switch.unavailable 5 17 dvs-storage

host set storage/paths/hba1:C0:T0:L4 naa.60a98000572d
host set storage/devices/naa.60a98000572d/partitions/1 ds-gold
host set storage/devices/naa.60a98000572d/pathRedundancy 3
observe kel.scsi.scsipath.pathstate.dead "%s %s" hba1:C0:T0:L4 on
expect within 60s nox.problem.storage.redundancy.degraded naa.60a98000572d hba1:C0:T0:L4 '"ds-gold"'
observe kel.scsi.scsipath.pathstate.on "%s %s" hba1:C0:T0:L4 dead
expect within 60s nox.clear.storage.redundancy.restored naa.60a98000572d '"ds-gold"' hba1:C0:T0:L4
host set storage/devices/naa.60a98000572d/pathRedundancy 2
observe kel.scsi.scsipath.pathstate.dead "%s %s" hba1:C0:T0:L4 on
expect within 60s nox.problem.storage.redundancy.lost naa.60a98000572d hba1:C0:T0:L4 '"ds-gold"'
observe kel.scsi.scsipath.pathstate.on "%s %s" hba1:C0:T0:L4 dead
expect within 60s nox.clear.storage.connectivity.restored naa.60a98000572d '"ds-gold"' hba1:C0:T0:L4
host set storage/devices/naa.60a98000572d/pathRedundancy 1
observe kel.scsi.scsipath.pathstate.off "%s %s" hba1:C0:T0:L4 on
expect within 60s nox.problem.storage.connectivity.lost naa.60a98000572d hba1:C0:T0:L4 '"ds-gold"'
repeat 12
    observe kel.scsi.scsipath.pathstate.on "%s %s" hba1:C0:T0:L4 standby
    observe kel.scsi.scsipath.por "%s" hba1:C0:T0:L4
end
expect within 60s nox.problem.storage.connectivity.pathstatechanges hba1:C0:T0:L4 naa.60a98000572d '"ds-gold"'
expect within 60s nox.problem.storage.connectivity.pathpor hba1:C0:T0:L4 naa.60a98000572d '"ds-gold"'

observe kel.pageretire.selectedmpnthreshold.host.exceeded "%lu" 1001
expect within 60s nox.problem.pageretire.selectedmpnthreshold.host.exceeded 1001 1000
host set vms/4711/name web01
repeat 25
    observe kel.pageretire.mce.injected "%x %d" 7936 4711
end
pause 3s
repeat 25
    observe kel.pageretire.mce.injected "%x %d" 7936 4711
end
expect within 60s nox.problem.pageretire.mce.injected.2 web01 50 7936

host set swap/failure "no datastore is left"
observe kel.swap.systemSwap.isPDL.removed "%s" /dsfs/volumes/gold/swap
expect within 60s nox.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2 ...
observe kel.quillfs.symlink.failed ""
expect within 60s nox.problem.quillfs.failure
observe kel.vfat.filesystem.full "%s %s" scratch SCRATCH
expect within 60s nox.problem.vfat.filesystem.full.scratch scratch SCRATCH
observe kel.uw.core.dumped "%s %d %s" zuma 7 /var/core/zuma
expect within 60s nox.problem.zuma.core.dumped zuma 1 /var/core/zuma
observe kel.uw.core.dumped "%s %d %s" carad 8 /var/core/carad
expect within 60s nox.problem.carad.core.dumped carad 1 /var/core/carad
)";

// What vfat takes for the UUID of the scratch partition here.
std::string ScratchUuid()
{
    std::error_code none;
    const std::filesystem::path target = std::filesystem::read_symlink("/scratch", none);
    return none ? "scratch" : target.filename().string();
}

std::string Story()
{
    std::string story = kStory;
    for (const auto &[name, value] : {std::pair<std::string, std::string>{"SCRATCH", ScratchUuid()},
                                      {"FENCE_ID", std::to_string(0xbad0007)},
                                      {"FENCE_PROPERTY", std::to_string(0xbad0002)}})
        for (std::size_t at = 0; (at = story.find(name, at)) != story.npos;)
            story.replace(at, name.size(), value);
    return story;
}

class CatalogueSystemTest : public SystemTest {
protected:
    CatalogueSystemTest()
    {
        for (const json &event : mCatalogue["events"])
            mEvents[event["type"]] = event;
        for (const json &agent : mCatalogue["agents"])
            if (agent.contains("otherwiseBecomes")) mOther[agent["domains"][0]] = agent["name"];
        for (const json &row : mCatalogue["observations"])
            mAgentOf[row["id"]] = row["agent"];
    }

    // With any arguments of the right types: texts that say their names, numbers that say their places.
    static Observation Sample(const json &row)
    {
        static const std::map<std::string, std::string> conversions = {
            {"string", "%s "}, {"int32", "%d "},   {"uint32", "%u "},
            {"int64", "%ld "}, {"uint64", "%lu "}, {"uuid", "%x %x %x %x %x %x %x %x %x "}};
        std::string format;
        std::vector<ArgumentWord> words;
        for (const json &argument : row["arguments"]) {
            format += conversions.at(argument["type"]);
            const bool text = argument["type"] == "string";
            for (int parts = argument["type"] == "uuid" ? 9 : 1; parts > 0; --parts)
                words.push_back(
                    {text ? argument["name"].get<std::string>() : std::to_string(words.size() + 1)});
        }
        return MakeObservation(kUser, row["id"], format, words);
    }

    void Observe(const Observation &observation)
    {
        EXPECT_EQ(0, mProducer->Send(std::as_bytes(std::span(observation.record))));
        const std::string id = observation.record.data() + 32;
        const std::string domain = id.substr(4, id.find('.', 4) - 4);
        ++mSent[mAgentOf.contains(id) ? mAgentOf[id] : mOther.at(domain)];
    }

    // Returns when every agent has handled what was sent to it, as its lines in the log tell.
    void Settle()
    {
        const bool settled = WaitUntil([&] {
            return std::ranges::all_of(mSent, [&](const auto &entry) {
                const auto lines = daemon->Log().LinesWith("[" + entry.first + "] ");
                return std::ranges::count_if(lines, [&](const std::string &line) {
                           return IsHandled(entry.first, line);
                       }) >= entry.second;
            });
        });
        EXPECT_TRUE(settled) << daemon->Log().Raw();
    }

    // Not the events' own lines; and the generic agent also logs what is the user-level one's.
    bool IsHandled(const std::string &agent, const std::string &line) const
    {
        const std::size_t start = line.find("us: [kel.");
        if (start == line.npos) return false;
        const std::string id = line.substr(start + 5, line.find(']', start) - start - 5);
        const auto known = mAgentOf.find(id);
        return known == mAgentOf.end() || known->second == agent;
    }

    // Every event as the catalogue has it.
    void Fetch()
    {
        for (EventRecord &event : receiver.Drain()) {
            mTypes.insert(event.typeId);
            if (const auto listed = mEvents.find(event.typeId); listed != mEvents.end()) {
                EXPECT_EQ(TypesOf(listed->second), TypesOf(event)) << event.typeId;
            }
            mWaiting.push_back(std::move(event));
        }
    }

    static Texts TypesOf(const json &event)
    {
        Texts types;
        for (const json &argument : event["arguments"])
            types.push_back(argument["type"]);
        return types;
    }
    static Texts TypesOf(const EventRecord &event)
    {
        static const std::map<std::uint32_t, std::string> names = {{MSGFMT_TYPE_INT32, "int32"},
                                                                   {MSGFMT_TYPE_INT64, "int64"},
                                                                   {MSGFMT_TYPE_UINT32, "uint32"},
                                                                   {MSGFMT_TYPE_UINT64, "uint64"},
                                                                   {MSGFMT_TYPE_STRING, "string"}};
        Texts types;
        for (const EventArgument &argument : event.arguments)
            types.push_back(names.at(argument.type));
        return types;
    }

    bool HasCome(const ExpectAction &expect)
    {
        Fetch();
        return std::ranges::any_of(mWaiting, [&](const EventRecord &event) {
            Texts arguments;
            for (const EventArgument &argument : event.arguments)
                arguments.push_back(argument.ToText());
            return Meets(expect, event.typeId, arguments);
        });
    }

    void Play(std::span<const ScenarioStep> steps)
    {
        for (const ScenarioStep &step : steps) {
            if (auto observation = std::get_if<Observation>(&step.action)) {
                Observe(*observation);
            } else if (auto repeat = std::get_if<RepeatAction>(&step.action)) {
                for (unsigned i = 0; i < repeat->count; ++i)
                    Play(repeat->steps);
            } else {
                Settle(); // before the host or the time is another
                if (auto change = std::get_if<HostChange>(&step.action))
                    ApplyHostChange(*change);
                else if (auto pause = std::get_if<PauseAction>(&step.action))
                    daemon->Advance(static_cast<std::uint64_t>(pause->duration.count() / 1000));
                else
                    Await(std::get<ExpectAction>(step.action), step.source);
            }
        }
    }

    void Await(const ExpectAction &expect, const std::string &source)
    {
        const bool come = WaitUntil([&] {
            if (HasCome(expect)) return true;
            daemon->Advance(1);
            return false;
        });
        EXPECT_TRUE(come) << source;
    }

    const json mCatalogue =
        json::parse(ReadAll(std::filesystem::path(KELD_BINARY_DIR) / "catalogue" / "events.json"));
    std::map<std::string, json> mEvents;
    std::map<std::string, std::string> mAgentOf; // by observation
    std::map<std::string, std::string> mOther;   // by domain: the agent that posts for any other
    std::map<std::string, std::ptrdiff_t> mSent; // by agent
    std::optional<RawProducer> mProducer;
    std::vector<EventRecord> mWaiting;
    std::set<std::string> mTypes;
};

TEST_F(CatalogueSystemTest, EveryEventIsPostedByTheDaemonAndNoOtherIs)
{
    daemon.emplace(kHandClockDaemon, Texts{}, Texts{"KELD_OPTIONAL_AGENTS=1"});
    ASSERT_TRUE(daemon->WaitUntilReady()) << daemon->Output();
    mProducer.emplace(kUser);
    Play(ParseScenario(Story()));
    for (const json &row : mCatalogue["observations"])
        Observe(Sample(row));
    Settle();
    EXPECT_EQ(0, mProducer->Send(MakeRecord("kel.tests.any", " "))); // the self-test posts with its first

    std::set<std::string> expected = PostedBy(kDaemonSources / "correlators" / kSelftestSource);
    ASSERT_EQ(1u, expected.erase("nox.problem.keldtestcorrelator.test.hugestr")) << "too large to be sent";
    for (const auto &[type, event] : mEvents)
        if (!kUnreachable.contains(type)) expected.insert(type);
    WaitUntil([&] {
        Fetch();
        return std::ranges::includes(mTypes, expected);
    });
    EXPECT_THAT(Without(expected, mTypes), testing::IsEmpty()) << "never posted";
    EXPECT_THAT(Without(mTypes, expected), testing::IsEmpty()) << "not listed";
}

TEST_F(CatalogueSystemTest, EveryMarkedTextOfTheSourcesIsListed)
{
    std::set<std::string> posted, listed;
    for (const auto &file : std::filesystem::recursive_directory_iterator(kDaemonSources))
        if (file.path().extension() == ".cpp" && file.path().filename() != kSelftestSource)
            posted.merge(PostedBy(file.path()));
    for (const auto &[type, event] : mEvents)
        listed.insert(type);
    EXPECT_EQ(posted, listed);
}

TEST_F(CatalogueSystemTest, EveryObservationSaysWhatBecomesOfIt)
{
    for (const json &row : mCatalogue["observations"]) {
        EXPECT_TRUE(!row["becomes"].empty() || row.contains("note")) << row["id"];
        for (const std::string type : row["becomes"])
            EXPECT_TRUE(mEvents.contains(type)) << row["id"] << " " << type;
    }
    for (const json &agent : mCatalogue["agents"])
        EXPECT_NE("", agent["otherwise"]) << agent["name"];
}

} // namespace
