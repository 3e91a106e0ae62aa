// Event records in words.
#ifndef KELADM_RECEIVE_H
#define KELADM_RECEIVE_H

#include "catalogue.h"
#include "eventListener.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

// "problem", "audit", "clear": the class that the type ID's prefix names; empty for another prefix.
std::string EventClassOf(const std::string &typeId);

// One line: time, class, type ID, then the text of the catalogue, or the arguments where there is none.
// A malformed record: why, and its bytes.
std::string RecordLine(const ReceivedRecord &record, const std::optional<Catalogue> &catalogue,
                       bool colour);

// {"time", "timestamp", "class", "type", "text", "arguments", "host"}, text null without a catalogue entry;
// a malformed record: {"malformed", "length", "hex"}.
nlohmann::ordered_json RecordJson(const ReceivedRecord &record, const std::optional<Catalogue> &catalogue);

// JSON on one line; what is not UTF-8 in it is replaced, never refused.
std::string JsonLine(const nlohmann::ordered_json &json);

#endif
