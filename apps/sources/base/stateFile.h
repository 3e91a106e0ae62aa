// What a source must know again after a restart, in the run directory's folder "sources": gone with the
// next boot, as everything there.
#ifndef SOURCES_STATEFILE_H
#define SOURCES_STATEFILE_H

#include <nlohmann/json.hpp>
#include <string>

// Null when there is none, or none that can be read.
nlohmann::json ReadStateJson(const std::string &name);

// The same as a value; an empty one for a file that holds something else.
template <class State> State ReadState(const std::string &name)
{
    try {
        return ReadStateJson(name).get<State>();
    } catch (const nlohmann::json::exception &) {
        return {};
    }
}

// Whole or not at all. A failure is named in the log.
void WriteState(const std::string &name, const nlohmann::json &state);

#endif
