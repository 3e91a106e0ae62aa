// Trace lines in the catalogue's words.
#ifndef KELADM_TRACETEXT_H
#define KELADM_TRACETEXT_H

#include "catalogue.h"
#include "traceLine.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

// The line's arguments as they are shown, each with its name: empty where the catalogue has none for it. A
// uuid travels as nine numbers, and is one argument here.
std::vector<std::pair<std::string, std::string>> NamedArguments(const TraceLine &line,
                                                                const std::optional<Catalogue> &catalogue);

// The text of an event; nothing for an observation, whose message the trace does not have, and for an event
// that the catalogue does not know.
std::optional<std::string> MessageOf(const TraceLine &line, const std::optional<Catalogue> &catalogue);

#endif
