// keld-journal-stream COUNT RATE [START]: writes a daemon's journal of COUNT observations, RATE a second of its
// own time from START (seconds since the epoch) on, to standard output: what a recorder is measured with.
//
// A tenth of them leads to an event, a fifth is gathered, most of the rest is held back. 200 devices.

#include "observationWords.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <kltlibs/journalrecord.h>
#include <kltlibs/plingrecord.h>
#include <unistd.h>

namespace {

constexpr const char *kIds[] = {"kel.scsi.scsipath.pathstate.dead", "kel.scsi.scsipath.pathstate.on",
                                "kel.scsi.device.io.latency.high",  "kel.net.vmnic.linkstate.down",
                                "kel.vfat.filesystem.full",         "kel.dsfs.volume.locked"};

std::string Record(const char *id, int device)
{
    std::vector<ArgumentWord> words{
        {fmt::format("naa.600508b1001c{:04x}{:08x}", device, device * 7919), true},
        {fmt::format("vmhba{}:C0:T{}:L{}", device % 4, device % 8, device), true},
        {std::to_string(device * 31), false}};
    Observation observation = MakeObservation(0, id, std::nullopt, words);
    return {observation.record.begin(), observation.record.end()};
}

// An event's record with the same arguments as an observation's.
std::string EventOf(const std::string &observation, std::string_view type, std::uint64_t time)
{
    std::uint32_t at = 0, count = 0;
    std::memcpy(&at, observation.data() + 24, 4);
    std::memcpy(&count, observation.data() + 12, 4);
    std::string_view area = std::string_view(observation).substr(at);
    std::string record(PLINGRECORD_HEADER_BYTES, '\0');
    auto put = [&](std::size_t where, const auto &value) {
        std::memcpy(record.data() + where, &value, sizeof value);
    };
    put(0, time);
    put(PLINGRECORD_TOTAL_LENGTH_AT, static_cast<std::uint32_t>(72 + type.size() + 1 + area.size()));
    put(PLINGRECORD_ARGUMENT_COUNT_AT, count);
    put(PLINGRECORD_TYPE_ID_LENGTH_AT, static_cast<std::uint32_t>(type.size() + 1));
    record.append(type).append(1, '\0').append(area).append(4, '\0');
    return record;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) return 2;
    const std::uint64_t count = std::strtoull(argv[1], nullptr, 10),
                        rate = std::strtoull(argv[2], nullptr, 10);
    const std::uint64_t start = (argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1772366400) * 1'000'000;
    std::vector<std::string> records;
    for (int device = 0; device < 200; device++)
        for (const char *id : kIds)
            records.push_back(Record(id, device));

    std::string out;
    std::uint64_t number = 1, event = 0;
    JournalHello hello;
    hello.process = 4711;
    hello.since = start;
    hello.version = "0.1.0";
    hello.agents = {{1, 0, "SCSICorrelator"}};
    Journal_Append(&out, number++, start, hello);
    Journal_Append(&out, number++, start, JournalBegin{0, 0, {{1, 0}}});
    for (std::uint64_t k = 1; k <= count; k++) {
        const std::uint64_t time = start + k * 1'000'000 / rate;
        const std::string &record = records[k * 7919 % records.size()];
        const JournalOrigin origin{1, k};
        Journal_Append(&out, number++, time, JournalIn{k, 3, {origin}, {record}});
        JournalFateEntry fate{origin, JournalFate::HeldBack,
                              "within 90 s of the last one; posts again after 03:14:10"};
        if (k % 10 == 0) {
            fate = {origin, JournalFate::Posted, ""};
            Journal_Append(&out, number++, time,
                           JournalOut{++event,
                                      {origin},
                                      0,
                                      "nox.problem.scsi.device.io.latency.high",
                                      {EventOf(record, "nox.problem.scsi.device.io.latency.high", time)}});
            Journal_Append(&out, number++, time,
                           JournalDeliveryEntry{event, JournalDelivery::Delivered, 1});
        } else if (k % 5 == 1) {
            fate = {origin, JournalFate::Gathered, "until 03:12:06"};
        }
        Journal_Append(&out, number++, time, fate);
        if (out.size() > (1 << 20) || k == count) {
            std::fwrite(out.data(), 1, out.size(), stdout);
            out.clear();
        }
    }
    return 0;
}
