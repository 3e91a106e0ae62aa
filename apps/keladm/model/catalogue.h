// The catalogue of all observations and events: a JSON file, written when the daemon is built.
//
//     {"version": 1,
//      "agents": [{"name": "NetCorrelator", "domains": ["net"], "otherwise": "ignored",
//                  "otherwiseBecomes": ["nox..."], "emitters": ["The network stack..."]}],
//      "events": [{"type": "nox.problem.net...", "class": "problem", "text": "NIC %s is down.",
//                  "arguments": [{"name": "nic", "type": "string"}], "object": "nic",
//                  "clearedBy": ["nox.clear..."], "pairedOn": ["nic"],
//                  "explanation": {"meaning": "...", "impact": "...", "action": "..."}},
//                 {"type": "nox.clear.net...", ..., "clears": ["nox.problem..."], "remembered": true}],
//      "observations": [{"id": "kel.net...", "domain": "net", "agent": "NetCorrelator", "arguments": [...],
//                        "object": "nic", "becomes": ["nox..."], "note": "..."}]}
//
// Argument types are string, int32, uint32, int64 and uint64; of an observation also uuid, which is sent
// as nine numbers (%08x-%08x-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx). The object is the argument that
// it is about. A problem's pairedOn names the arguments by which it and its clears are matched; when it is
// empty, a clear ends every problem of the type. The agents, an agent's otherwiseBecomes and emitters, an
// object, an event's clears, clearedBy, pairedOn, remembered and explanation and an observation's agent,
// becomes and note may be absent; other keys are passed over.
#ifndef KELADM_CATALOGUE_H
#define KELADM_CATALOGUE_H

#include "failure.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct CatalogueArgument {
    std::string name;
    std::string type;
};

// Of an event: one to three sentences each, {nic} standing for its argument of that name.
struct CatalogueExplanation {
    std::string meaning, impact, action;
};

struct CatalogueEvent {
    std::string type;
    std::string eventClass;
    std::string text; // printf-style
    std::vector<CatalogueArgument> arguments;
    std::string object; // the name of one of them; empty for none
    std::vector<std::string> clears;
    std::vector<std::string> clearedBy;
    std::vector<std::string> pairedOn; // of a problem with its clears
    bool remembered = false;           // a clear that only the daemon posts that posted the problem
    CatalogueExplanation explanation;
};

struct CatalogueObservation {
    std::string id;
    std::string domain;
    std::vector<CatalogueArgument> arguments;
    std::string object; // the name of one of them; empty for none
    std::vector<std::string> becomes;
    std::string note;
    std::string agent; // the one whose domain it is of
};

// What becomes of the observations of its domains that are not listed.
struct CatalogueAgent {
    std::string name;
    std::vector<std::string> domains;
    std::string otherwise;
    std::vector<std::string> becomes;
    std::vector<std::string> emitters; // of each domain, who emits its observations
};

struct Catalogue {
    std::vector<CatalogueAgent> agents;
    std::vector<CatalogueEvent> events;
    std::vector<CatalogueObservation> observations;

    // Null for one that is not there.
    const CatalogueEvent *Find(std::string_view type) const;
    const CatalogueObservation *FindObservation(std::string_view id) const;
};

// "string nic (object), int32 uplinks" of an event or an observation.
std::string ArgumentsText(const std::vector<CatalogueArgument> &arguments, const std::string &object);

// Throws Failure naming the entry that is wrong.
Catalogue ParseCatalogue(std::string_view json);

// The catalogue in file; when that is empty, in the file that KELD_CATALOGUE names; without that, the
// first one there is in CataloguePlaces; nothing when there is none. Throws Failure for a file that was
// named and cannot be read, and for a malformed one.
std::optional<Catalogue> FindCatalogue(const std::string &file);

// The same, where nothing can be done without. Throws Failure saying where it was looked for.
Catalogue NeededCatalogue(const std::string &file);

// Beside an installed program, then in a build.
std::vector<std::string> CataloguePlaces();

#endif
