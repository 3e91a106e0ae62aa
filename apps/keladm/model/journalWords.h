// Entries of the journal in words.
#ifndef KELADM_JOURNALWORDS_H
#define KELADM_JOURNALWORDS_H

#include "journalEntry.h"

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

// Tells entries of one listener in their order: it remembers the agents' names, which the hello says.
class JournalWords {
public:
    // One line, without a newline: time, kind, what it says.
    std::string Line(const JournalEntry &entry);

    // {"number", "time", "kind", ...}. Observations have "id" and "message", events "type" and "arguments";
    // an observation in an agent is {"agent", "count"}.
    nlohmann::ordered_json Json(const JournalEntry &entry);

private:
    void Learn(const JournalEntry &entry);

    std::map<std::uint16_t, std::string> mAgents;
};

#endif
