#include "story.h"

#include <algorithm>

std::vector<Story> StoriesOf(std::span<const ScenarioStep> steps)
{
    auto isHeading = [](const ScenarioStep &step) {
        return std::holds_alternative<StoryAction>(step.action);
    };
    auto takeHost = [&steps](std::vector<HostChange> &host) {
        for (; !steps.empty() && std::holds_alternative<HostChange>(steps.front().action);
             steps = steps.subspan(1))
            host.push_back(std::get<HostChange>(steps.front().action));
    };
    std::vector<Story> stories;
    std::vector<HostChange> common;
    if (steps.empty()) return stories;
    size_t firstLine = steps.front().line;
    takeHost(common);
    if (std::ranges::none_of(steps, isHeading)) return {{firstLine, SIZE_MAX, "", common, steps}};
    while (!steps.empty()) {
        Story &story = stories.emplace_back();
        story.line = steps.front().line;
        story.heading = std::get<StoryAction>(steps.front().action).heading;
        story.host = common;
        steps = steps.subspan(1);
        takeHost(story.host);
        auto end = std::ranges::find_if(steps, isHeading);
        story.lastLine = end == steps.end() ? SIZE_MAX : end->line - 1;
        story.steps = steps.first(static_cast<size_t>(end - steps.begin()));
        steps = steps.subspan(story.steps.size());
    }
    return stories;
}
