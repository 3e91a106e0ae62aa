// Recorded observations and events, read back and put into words.
#ifndef RECORDER_ROWS_H
#define RECORDER_ROWS_H

#include "catalogue.h"
#include "database.h"
#include "timeWords.h"

#include <kltlibs/journalrecord.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

struct RecordedFate {
    std::string agent;
    std::uint64_t count = 0;
    int code = 0; // JournalFate; 0 when it was not told
    std::string text;
};

struct RecordedObservation {
    std::int64_t key = 0;
    std::uint64_t time = 0;
    std::string id;
    std::optional<std::string> object;
    int channel = 0;
    std::string record;
    std::vector<RecordedFate> fates;
    std::vector<std::int64_t> events; // keys
};

struct RecordedEvent {
    std::int64_t key = 0;
    std::uint64_t time = 0;
    std::string type;
    std::optional<std::string> object;
    std::string record;
    std::vector<std::int64_t> causes; // keys
    std::uint32_t unnamed = 0;        // causes more
    int delivery = 0;                 // JournalDelivery; 0 when nothing was told
    std::uint32_t tries = 0;
    std::uint64_t delivered = 0; // when the delivery was told
};

// What is asked for; the newest linesMax of it, in the order in which it came.
struct RowFilter {
    TimeSpan span;
    std::optional<std::string> name;   // of ID or type: exact, or with * and ?
    std::optional<std::string> object; // likewise
    bool flawed = false;               // only what was lost, or not delivered
    std::int64_t after = 0;            // only keys above
    size_t linesMax = 0;
};

class Rows {
public:
    Rows(Database *database, std::optional<Catalogue> catalogue);

    std::vector<RecordedObservation> Observations(const RowFilter &filter);
    std::vector<RecordedEvent> Events(const RowFilter &filter);
    std::optional<RecordedObservation> Observation(std::int64_t key);
    std::optional<RecordedEvent> Event(std::int64_t key);

    // "o18201", "e312"; with the run in front when it is not the last one: "r2:o18201".
    std::string Label(char kind, std::int64_t key) const;
    // A key for such a label, of either kind when the letter is missing. Nothing for anything else.
    std::optional<std::pair<char, std::int64_t>> ParseLabel(std::string_view text);
    std::int64_t LastRun() const { return mLastRun; }
    // Whether a later run of the daemon is recorded: what still waited in this one is lost.
    bool IsOfADaemonGone(std::int64_t key) const;

    // Arguments of an observation, text of an event (its arguments without a catalogue).
    std::string Detail(const RecordedObservation &observation) const;
    std::string Detail(const RecordedEvent &event) const;
    std::string
    FatesText(const RecordedObservation &observation); // "NetCorrelator: held back: within 90 s"
    std::string DeliveryText(const RecordedEvent &event) const;

    nlohmann::ordered_json ToJson(const RecordedObservation &observation);
    nlohmann::ordered_json ToJson(const RecordedEvent &event);

    Database &Data() { return *mDatabase; }
    const std::optional<Catalogue> &Known() const { return mCatalogue; }
    std::string NameText(std::int64_t name);
    // The numbers of the names that are meant: exact, or with * and ?.
    std::vector<std::int64_t> NamesOf(const std::string &pattern);

private:
    template <class Row>
    std::vector<Row> Find(const std::string &table, const char *nameColumn, const char *flaw,
                          const RowFilter &filter);
    void Read(Statement &row, RecordedObservation *observation);
    void Read(Statement &row, RecordedEvent *event);
    std::string AgentName(std::int64_t run, std::int64_t number);

    Database *mDatabase;
    std::optional<Catalogue> mCatalogue;
    std::int64_t mLastRun = 0;
    std::map<std::int64_t, std::string> mNames;
    std::map<std::pair<std::int64_t, std::int64_t>, std::string> mAgents;
};

std::string ChannelName(int channel);

#endif
