#include "statusFormats.h"

#include "text.h"

#include <fmt/format.h>

namespace {

using nlohmann::ordered_json;

double Seconds(std::uint64_t microseconds) { return static_cast<double>(microseconds) / 1e6; }

ordered_json ThreadJson(const StatusThread &thread)
{
    return {{"name", thread.name},
            {"alive", thread.alive},
            {"stands", thread.stands},
            {"seconds", Seconds(thread.microseconds)}};
}

ordered_json CountsJson(const StatusCounts &counts)
{
    ordered_json json = ordered_json::object();
    for (const auto &[word, count] : counts)
        json[word] = count;
    return json;
}

ordered_json AgentJson(const StatusThread &agent)
{
    ordered_json json = ThreadJson(agent);
    json["received"] = agent.received;
    json["waiting"] = agent.waiting;
    json["fates"] = CountsJson(agent.fates);
    return json;
}

void AddCounts(ordered_json &json, const StatusReport &report)
{
    json["process"] = report.process;
    json["version"] = report.version;
    json["started"] = UtcTime(report.startedAt);
    json["last_seen"] = report.endedAt == 0 ? ordered_json() : ordered_json(UtcTime(report.endedAt));
    json["main"] = ThreadJson(report.main);
    json["alarm"] = ThreadJson(report.alarm);
    json["agents"] = ordered_json::array();
    for (const StatusThread &agent : report.agents)
        json["agents"].push_back(AgentJson(agent));
    json["observations"] = report.observations;
    json["channels"] = ordered_json::array();
    for (const StatusChannel &channel : report.channels)
        json["channels"].push_back({{"name", channel.name},
                                    {"observations", channel.observations},
                                    {"bytes", channel.bytes},
                                    {"dropped", channel.dropped},
                                    {"waiting_bytes", channel.waitingBytes}});
    json["events"] = CountsJson(report.deliveries);
    json["events_waiting"] = report.eventsWaiting;
    json["event_limit"] = {{"used", report.limitUsed}, {"of", report.limitMax}};
    json["trace_clients"] = report.traceClients;
    json["lost_log_lines"] = report.lostLogLines;
    if (!report.sockets) return;
    const auto &receiver = report.sockets->receiver;
    json["receiver"] = {{"listens", receiver.has_value()}};
    if (receiver) json["receiver"].update({{"waiting", receiver->waiting}, {"room", receiver->room}});
}

// ---- Metrics --------------------------------------------------------------------------------------

std::string Label(const std::string &value)
{
    std::string escaped;
    for (const char c : Printable(value)) {
        if (c == '"' || c == '\\') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

class Metrics {
public:
    // Begins a metric: the samples that follow are its own. All samples of one name must stand together.
    void Name(std::string name, const char *type, const char *help)
    {
        mName = "keld_" + std::move(name);
        mText += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", mName, help, type);
    }
    template <class Number> void Value(Number value) { mText += fmt::format("{} {}\n", mName, value); }
    template <class Number> void Value(const char *label, const std::string &of, Number value)
    {
        mText += fmt::format("{}{{{}=\"{}\"}} {}\n", mName, label, Label(of), value);
    }
    template <class Number>
    void Value(const char *label, const std::string &of, const char *other, const std::string &otherOf,
               Number value)
    {
        mText += fmt::format("{}{{{}=\"{}\",{}=\"{}\"}} {}\n", mName, label, Label(of), other,
                             Label(otherOf), value);
    }
    template <class Number> void Alone(std::string name, const char *type, const char *help, Number value)
    {
        Name(std::move(name), type, help);
        Value(value);
    }
    std::string Take() { return std::move(mText); }

private:
    std::string mName, mText;
};

void AddThreads(Metrics &metrics, const StatusReport &report)
{
    metrics.Name("agent_alive", "gauge", "1 while the agent is there.");
    for (const StatusThread &agent : report.agents)
        metrics.Value("agent", agent.name, agent.alive ? 1 : 0);
    metrics.Name("agent_observations_total", "counter", "Observations that the agent has looked at.");
    for (const StatusThread &agent : report.agents)
        metrics.Value("agent", agent.name, agent.received);
    metrics.Name("agent_observations_waiting", "gauge", "Observations in the agent's pipe.");
    for (const StatusThread &agent : report.agents)
        metrics.Value("agent", agent.name, agent.waiting);
    metrics.Name("agent_fates_total", "counter", "What became of the agent's observations.");
    for (const StatusThread &agent : report.agents)
        for (const auto &[fate, count] : agent.fates)
            metrics.Value("agent", agent.name, "fate", fate, count);
    metrics.Name("thread_standing_seconds", "gauge",
                 "For how long a thread has stood in what it stands in.");
    metrics.Value("thread", report.main.name, "standing", report.main.stands,
                  Seconds(report.main.microseconds));
    metrics.Value("thread", report.alarm.name, "standing", report.alarm.stands,
                  Seconds(report.alarm.microseconds));
    for (const StatusThread &agent : report.agents)
        metrics.Value("thread", agent.name, "standing", agent.stands, Seconds(agent.microseconds));
}

void AddCounts(Metrics &metrics, const StatusReport &report)
{
    metrics.Name("info", "gauge", "The version of the daemon.");
    metrics.Value("version", report.version, 1);
    metrics.Alone("start_time_seconds", "gauge", "When the daemon was started, since the epoch.",
                  Seconds(report.startedAt));
    metrics.Alone("observations_total", "counter", "Observations that came in.", report.observations);
    metrics.Name("channel_observations_total", "counter", "Observations that came in through the channel.");
    for (const StatusChannel &channel : report.channels)
        metrics.Value("channel", channel.name, channel.observations);
    metrics.Name("channel_dropped_total", "counter", "Datagrams and packets that held something else.");
    for (const StatusChannel &channel : report.channels)
        metrics.Value("channel", channel.name, channel.dropped);
    metrics.Name("channel_received_bytes_total", "counter", "Bytes of the channel's observations.");
    for (const StatusChannel &channel : report.channels)
        metrics.Value("channel", channel.name, channel.bytes);
    AddThreads(metrics, report);
    metrics.Name("events_total", "counter", "What became of events.");
    for (const auto &[delivery, count] : report.deliveries)
        metrics.Value("delivery", delivery, count);
    metrics.Alone("events_waiting", "gauge", "Events that wait for another try.", report.eventsWaiting);
    metrics.Alone("event_limit_used_ratio", "gauge", "Events in this minute, of those that it may have.",
                  report.limitMax == 0
                      ? 0
                      : static_cast<double>(report.limitUsed) / static_cast<double>(report.limitMax));
    metrics.Alone("trace_clients", "gauge", "Clients of the trace.", report.traceClients);
    metrics.Alone("log_lines_lost_total", "counter", "Lines that the system log has not taken.",
                  report.lostLogLines);
    if (!report.sockets) return;
    const auto &receiver = report.sockets->receiver;
    metrics.Alone("receiver_listens", "gauge", "1 while somebody listens for events.", receiver ? 1 : 0);
    metrics.Alone("receiver_connections_waiting", "gauge",
                  "Connections that the receiver has not accepted.", receiver ? receiver->waiting : 0);
}

} // namespace

ordered_json StatusJson(const StatusReport &report)
{
    ordered_json json{{"status", HealthName(report.OverallHealth())},
                      {"exit_status", static_cast<int>(report.OverallHealth())},
                      {"sentence", report.Sentence()},
                      {"running", report.running}};
    json["findings"] = ordered_json::array();
    for (const StatusFinding &finding : report.findings)
        json["findings"].push_back(
            {{"status", HealthName(finding.health)}, {"what", finding.what}, {"remedy", finding.remedy}});
    if (report.counted) AddCounts(json, report);
    return json;
}

std::string StatusMetrics(const StatusReport &report)
{
    Metrics metrics;
    metrics.Alone("up", "gauge", "1 while the daemon runs.", report.running ? 1 : 0);
    metrics.Alone("health", "gauge", "0 well, 1 degraded, 2 stuck, 3 not running.",
                  static_cast<int>(report.OverallHealth()));
    if (report.counted) AddCounts(metrics, report);
    return metrics.Take();
}
