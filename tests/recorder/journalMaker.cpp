#include "journalMaker.h"

#include <cstring>
#include <kltlibs/kelrecord.h>
#include <kltlibs/plingrecord.h>

std::uint64_t JournalMaker::Out(const std::vector<JournalOrigin> &origins, const std::string &type,
                                const std::vector<std::string> &arguments)
{
    // The argument area is laid out as an observation's.
    std::vector<ArgumentWord> words;
    for (const std::string &argument : arguments)
        words.push_back({argument, true});
    Observation observation = MakeObservation(0, "x", std::nullopt, words);
    const void *source = observation.record.data();
    std::string area(static_cast<const char *>(KelRecord_ArgumentArea(source)),
                     static_cast<const char *>(KelRecord_End(source)));
    std::string record(PLINGRECORD_HEADER_BYTES, '\0');
    auto put = [&](std::size_t at, auto value) { std::memcpy(record.data() + at, &value, sizeof value); };
    put(0, time);
    put(PLINGRECORD_TOTAL_LENGTH_AT, static_cast<std::uint32_t>(72 + type.size() + 1 + area.size()));
    put(PLINGRECORD_ARGUMENT_COUNT_AT, static_cast<std::uint32_t>(arguments.size()));
    put(PLINGRECORD_TYPE_ID_LENGTH_AT, static_cast<std::uint32_t>(type.size() + 1));
    record.append(type).append(1, '\0').append(area).append(4, '\0');
    Add(JournalOut{++mEvents, origins, 0, type, {record}});
    return mEvents;
}
