// Event records in words.
#ifndef KELADM_EVENTWORDS_H
#define KELADM_EVENTWORDS_H

#include "catalogue.h"
#include "eventListener.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

// An event as scenarios compare it. A malformed record is one, too, of a type that says what is wrong.
struct PlainEvent {
    std::string type;
    std::vector<std::string> arguments;

    std::string ToText() const; // as a scenario would expect it
};
PlainEvent ToPlainEvent(const ReceivedRecord &record);

// "problem", "audit", "clear": the class that the type ID's prefix names; empty for another prefix.
std::string EventClassOf(const std::string &typeId);

// One line: time, class, type ID, then the text of the catalogue, or the arguments where there is none.
// A malformed record: why, and its bytes.
std::string RecordLine(const ReceivedRecord &record, const std::optional<Catalogue> &catalogue,
                       bool colour);

// {"time", "timestamp", "class", "id", "text", "arguments", "host"}, text null without a catalogue entry;
// a malformed record: {"malformed", "length", "hex"}.
nlohmann::ordered_json RecordJson(const ReceivedRecord &record, const std::optional<Catalogue> &catalogue);

#endif
