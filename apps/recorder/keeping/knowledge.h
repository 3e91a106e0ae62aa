// What the recorder takes from the catalogue: which argument is the object, and which clear ends what.
#ifndef RECORDER_KNOWLEDGE_H
#define RECORDER_KNOWLEDGE_H

#include "catalogue.h"
#include "eventRecord.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// An object and which argument it is, from 0.
struct ObjectArgument {
    std::string text;
    int argument = 0;
};

class Knowledge {
public:
    // Without a catalogue nothing has an object, and no clear ends anything.
    explicit Knowledge(const std::optional<Catalogue> &catalogue);

    // Of a record that need not be valid; none without one that can be read.
    std::optional<ObjectArgument> ObjectOf(std::string_view observationId, std::string_view record) const;
    std::optional<ObjectArgument> ObjectOf(const EventRecord &event) const;

    // Whether the catalogue knows a clear for this problem.
    bool IsClearable(std::string_view problemType) const;
    // The values on which a problem is matched with its clears.
    std::string PairingOf(const EventRecord &problem) const;

    // The problems that a clear ends, each with its PairingOf; none for what is no clear.
    struct Ended {
        std::string type;
        std::string pairing;
    };
    std::vector<Ended> EndedBy(const EventRecord &clear) const;

private:
    struct Event {
        int object = -1;
        bool clearable = false;
        std::vector<int> pairedOn; // arguments
        struct Ends {
            std::string type;
            std::vector<int> pairedOn; // arguments of this clear, in the problem's order
        };
        std::vector<Ends> ends;
    };
    const Event *Find(std::string_view type) const;

    struct Observation {
        int object = 0;
        bool isUuid = false;
    };
    std::map<std::string, Observation, std::less<>> mObservations; // those that have an object
    std::map<std::string, Event, std::less<>> mEvents;
};

// The arguments of an observation's record as texts, null texts as "(null)"; none for a record that is
// none.
std::vector<std::string> ArgumentTexts(std::string_view record);

#endif
