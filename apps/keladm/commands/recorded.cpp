#include "recorded.h"

#include "external.h"
#include "text.h"

#include <fmt/format.h>
#include <sstream>

using json = nlohmann::ordered_json;

namespace {

constexpr auto kAnswerLimit = std::chrono::seconds(1);

// "2024-05-01 12:00:00" in local time, of a time as programs read it.
std::string ShortTime(const std::string &utc)
{
    auto seconds = ParseUtcTime(utc.substr(0, 19) + "Z");
    return seconds ? LocalTime(*seconds * 1'000'000).substr(0, 19) : utc;
}

} // namespace

json AskRecording(const std::string &name, const std::string &catalogueFile)
{
    std::vector<std::string> words{"--json"};
    if (!catalogueFile.empty()) words.push_back("--catalogue=" + catalogueFile);
    words.insert(words.end(), {"--", name});
    auto answer = AskProgram("why", words, kAnswerLimit);
    if (!answer) return nullptr;
    std::istringstream lines(*answer);
    std::string evidenceLine, lastLine;
    std::getline(lines, evidenceLine);
    std::getline(lines, lastLine);
    try {
        json evidence = json::parse(evidenceLine), last = json::parse(lastLine);
        const bool never = last.at("kind") == "never";
        return {{"since", evidence.at("since").get<std::string>()},
                {"complete", evidence.at("complete").get<bool>()},
                {"times", never ? 0 : last.at("times").get<std::uint64_t>()},
                {"last", never ? json(nullptr) : last}};
    } catch (const json::exception &) { // of another version
        return nullptr;
    }
}

std::string RecordedText(const json &recorded)
{
    if (recorded.is_null()) return "";
    const std::string since = ShortTime(recorded["since"].get<std::string>()) +
                              (recorded["complete"].get<bool>() ? "" : ", with gaps");
    const json &last = recorded["last"];
    if (last.is_null()) return fmt::format("not once since {}", since);
    const auto times = recorded["times"].get<std::uint64_t>();
    std::string text =
        fmt::format("{} {} since {}; the last at {}, {}.", times, times == 1 ? "time" : "times", since,
                    ShortTime(last.value("time", "")), last.value("number", "?"));
    if (last.contains("deliveryBecause")) text += " " + Printable(last.value("deliveryBecause", ""));
    for (const json &fate : last.value("fates", json::array()))
        text += " " + Printable(fate.value("because", ""));
    return text;
}
