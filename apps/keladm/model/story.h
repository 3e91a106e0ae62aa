// The stories of a file: its scenario cut at the headings.
#ifndef KELADM_STORY_H
#define KELADM_STORY_H

#include "scenario.h"

#include <cstddef>
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

#endif
