// Stories: scenarios on a clock moved by hand, where whatever is due has happened before the next line.
#ifndef KELADM_STORYPLAYER_H
#define KELADM_STORYPLAYER_H

#include "console.h"
#include "scenario.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

// One story of a file. It borrows the file's steps.
struct Story {
    size_t line = 0;                     // of its heading, or of the first step of a file without headings
    size_t lastLine = 0;                 // the last that still belongs to it
    std::string heading;                 // empty in a file without
    std::vector<HostChange> host;        // as its daemon finds it; what all of a file have in common first
    std::span<const ScenarioStep> steps; // the others
};

// In their order; none of an empty file.
std::vector<Story> StoriesOf(std::span<const ScenarioStep> steps);

// One step, or the start, after which not all was as expected.
struct StoryTrouble {
    size_t line = 0;
    std::string source;
    std::string what;                  // why it could not go on; empty where the two lists tell
    std::vector<std::string> expected; // and not met
    std::vector<std::string> came;     // and not expected, with what keeps it from being what was
};

struct StoryResult {
    unsigned met = 0;                    // expectations
    std::optional<StoryTrouble> trouble; // the first; what follows it has not been played
};

// Plays one story with a host, a receiver and a daemon of its own, and leaves nothing behind. program is
// a keld-lab. Throws Failure when there is no place for them, and Stopped.
StoryResult PlayStory(const Story &story, const std::string &program, const StopSignal &stop);

#endif
