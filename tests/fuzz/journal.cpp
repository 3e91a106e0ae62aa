// The journal as a reader might meet it, if something other than the daemon wrote it.
#include "fuzz.h"

#include <journalEntry.h>

void Fuzz(std::string_view input)
{
    JournalStream whole, pieces;
    whole.Add(input);
    std::string again;
    std::size_t fed = 0;
    while (const auto entry = whole.Take()) {
        again.clear();
        const bool known = std::visit(
            [&](const auto &body) {
                if constexpr (!std::is_same_v<decltype(body), const JournalUnknown &>)
                    Journal_Append(&again, entry->number, entry->microseconds, body);
                return !again.empty();
            },
            entry->body);
        // What was read is written as it was.
        std::uint32_t length = 0;
        FUZZ_CHECK(input.size() >= sizeof length);
        std::memcpy(&length, input.data(), sizeof length);
        FUZZ_CHECK(length <= input.size() && (!known || again == input.substr(0, length)));
        // In two pieces it is the same one.
        pieces.Add(input.substr(0, length / 2));
        FUZZ_CHECK(!pieces.Take() && pieces.Error().empty());
        pieces.Add(input.substr(length / 2, length - length / 2));
        const auto second = pieces.Take();
        FUZZ_CHECK(second && second->number == entry->number &&
                   second->body.index() == entry->body.index());
        fed += length;
        input.remove_prefix(length);
    }
    FUZZ_CHECK(whole.Error().empty() || !input.empty());
    FUZZ_CHECK(whole.AtBoundary() == input.empty() && pieces.AtBoundary());
    std::size_t at = 0;
    FUZZ_CHECK(whole.Error().empty() ||
               (std::sscanf(whole.Error().c_str(), "entry at byte %zu: ", &at) == 1 && at == fed));
}
