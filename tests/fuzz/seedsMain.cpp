// Writes what the fuzzers begin with, DIRECTORY/<target>/<file>, out of real records and texts.
#include "eventSink.h"
#include "keldPling.h"
#include "logCapture.h"
#include "observation.h"
#include "runDir.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace {

std::filesystem::path directory;

void Write(const char *target, std::string_view bytes)
{
    static int number = 0;
    std::filesystem::create_directories(directory / target);
    std::ofstream file(directory / target / ("seed-" + std::to_string(number++)), std::ios::binary);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string_view AsText(const RecordBytes &bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

// A record is a seed of its own; its format and its arguments are one of the formats', too.
void WriteObservation(const RecordBytes &record)
{
    const std::string_view bytes = AsText(record);
    Write("record", bytes);
    const std::string_view behindId = bytes.substr(bytes.find('\0', 32) + 1);
    Write("msgfmt", behindId);
    Write("argsByFormat", behindId.substr(0, behindId.find('\0')));
}

void WriteObservations()
{
    constexpr short kBelow = -7;
    constexpr unsigned short kShort = 513;
    constexpr unsigned char kByte = 255;
    const RecordBytes path = MakeRecord("kel.scsi.scsipath.pathstate.dead",
                                        "Path %s changed its state from %s", "hba1:C0:T0:L4", "on");
    const RecordBytes signs =
        MakeRecord("kel.x", "%d %u %ld %lu %hd %hhx %c%% %s", -1, ~0U, -1L, ~0UL, kBelow, kByte, 'k', "");
    WriteObservation(path);
    WriteObservation(signs);
    WriteObservation(MakeRecord("kel.clock.correction.adjtime.sync", "No arguments; 90%% full"));
    WriteObservation(MakeRecord("kel.dsfs.volume.locked", "%08x-%08x-%04hx-%02hhx %s", 0x4a8bU, 17U, kShort,
                                kByte, static_cast<const char *>(nullptr)));
    WriteObservation(MakeRecord("kel.net.dvport.uplink.transition.down", "%-20.3s|%+5d|%#lx|% 6lld",
                                "vmnic0", 3, 0xfeedUL, -4LL));
    RecordBytes batch = path;
    batch.insert(batch.end(), signs.begin(), signs.end());
    Write("record", AsText(batch));
}

// As the daemon sends them.
void WriteEvents()
{
    const RunDir runDir;
    const LogCapture log;
    EventSink receiver;
    KeldPlingInit();
    KeldPostEvent(0, KeldEventClass::Problem,
                  "@&!*@*@(nox.problem.net.vmnic.linkstate.down)Link of %s is down.", "vmnic0");
    KeldPostEvent(0, KeldEventClass::Audit,
                  "@&!*@*@(nox.audit.net.firewall.disabled)Firewall has been disabled.");
    KeldPostEvent(0, KeldEventClass::Clear, "@&!*@*@(nox.clear.x.%%s)%d %u %ld %lu %s %s", -1, ~0U, -1L,
                  ~0UL, "100 %s of %d", static_cast<const char *>(nullptr));
    for (const RecordBytes &record : receiver.WaitForRaw(3))
        Write("eventRecord", AsText(record));
}

constexpr const char *kScenarioLines[] = {
    "# a comment\nhost set net/portgroups/Production vSwitch0\nhost mkdir kernel/nodes/net/pNics/vmnic0\n"
    "host remove 'swap/failure'\n",
    "observe kel.net.vmnic.linkstate.down vmnic0\nobserve @async-3 kel.x \"NIC %s at %u\" vmnic0 10\n",
    "repeat 3\n  pause 500ms\n  repeat 2\n    pause 1.5s\n  end\nend\npause 1m\n",
    "expect within 5s nox.problem.net.vmnic.linkstate.down vmnic? \"a \\\"b\\\"\\n\" ...\n"
    "expect none within 2s nox.problem.*\nexpect none within 1s\n",
    "observe @22 kel.x \"%s %ld %c\" (null) -0x10 k\r\nobserve kel.x '10' 010 18446744073709551615\n",
};

constexpr const char *kInventoryEntries[] = {
    "kernel/options/Net/LinkFlappingThreshold\n60",
    "kernel/options/Misc/%2F%25\n-9223372036854775808",
    "kernel/nodes/system/systemUuid\n01234567-89ab-cdef-0123-456789abcdef",
    "kernel/nodes/system/pageRetire/threshold\n18446744073709551615",
    "kernel/signature\n0f1e2d3c",
    "storage/devices/naa.60a98000572d54724a34642d71325763/pathRedundancy\n3",
    "storage/devices/naa.6/partitions/1\nds-gold",
    "vms/4711/name\nweb01",
    "net/portgroups/Production\nvSwitch0",
    "a/../b\n",
};

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) return 2;
    directory = argv[1];
    WriteObservations();
    WriteEvents();
    for (const char *lines : kScenarioLines)
        Write("scenario", lines);
    for (const char *entry : kInventoryEntries)
        Write("inventory", entry);
    return 0;
}
