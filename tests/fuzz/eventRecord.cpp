// Event records as the receiver might meet them, if something other than the daemon wrote to it.
#include "fuzz.h"

#include <eventRecord.h>
#include <kltlibs/plingrecord.h>

namespace {

bool Decode(std::string_view bytes, EventRecord *event, std::string *error)
{
    return EventRecord_Decode(std::as_bytes(std::span(bytes)), event, error) == 0;
}

} // namespace

void Fuzz(std::string_view input)
{
    EventRecord event, again;
    std::string error;
    if (!Decode(input, &event, &error)) {
        std::size_t at = 0;
        FUZZ_CHECK(std::sscanf(error.c_str(), "byte %zu: ", &at) == 1 && at <= input.size());
        return;
    }
    FUZZ_CHECK(!Decode(input.substr(0, input.size() - 1), &again, &error));
    FUZZ_CHECK(event.typeId.size() + 1 == PlingRecord_TypeIdLength(input.data()));
    FUZZ_CHECK(event.typeId == PlingRecord_TypeId(input.data()));
    FUZZ_CHECK(event.arguments.size() == PlingRecord_ArgumentCount(input.data()));
    std::string format = event.typeId; // its own texts are as good as any for one
    for (const EventArgument &argument : event.arguments)
        format += argument.ToText();
    EventRecord_Render(event, format);
}
