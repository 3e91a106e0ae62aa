// Playing a story: on a clock moved by hand, where whatever is due has happened before the next line.
#ifndef KELADM_STORYPLAYER_H
#define KELADM_STORYPLAYER_H

#include "console.h"
#include "story.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

// One step, or the start, after which not all was as expected.
struct StoryTrouble {
    size_t line = 0;
    std::string source;
    std::string what;                  // why it could not go on; empty where the two lists tell
    std::vector<std::string> expected; // and not met
    std::vector<std::string> came;     // and not expected, with why it is not what was
};

struct StoryResult {
    unsigned met = 0;                    // expectations
    std::optional<StoryTrouble> trouble; // the first; what follows it has not been played
};

// Plays one story with a host, a receiver and a daemon of its own, and leaves nothing behind. program is
// a keld-lab. Throws Failure when there is no place for them, and Stopped.
StoryResult PlayStory(const Story &story, const std::string &program, const StopSignal &stop);

#endif
