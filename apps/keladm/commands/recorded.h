// What the recording, where there is one, has of an event type or an observation ID.
#ifndef KELADM_RECORDED_H
#define KELADM_RECORDED_H

#include <nlohmann/json.hpp>
#include <string>

// {"since", "complete", "times", "last"}: how often it came since the recording begins, whether that has no
// gap, and the last one as "keladm why --json" tells it, null when it never came. Null when no recorder is
// installed, there is no recording, this user may not read it, or it does not answer within a second.
nlohmann::ordered_json AskRecording(const std::string &name, const std::string &catalogueFile);

// The same for people, in sentences; empty for null.
std::string RecordedText(const nlohmann::ordered_json &recorded);

#endif
