#include "keeper.h"

#include <algorithm>
#include <fmt/format.h>
#include <kltlibs/kelrecord.h>
#include <span>

namespace {

constexpr int kCountBits = 38, kAgentBits = 5;

// One agent's part of an observation's fates.
std::string FateText(std::uint16_t agent, std::uint64_t count, int code, std::string_view text)
{
    std::string part = fmt::format("\n{} {} {} {}", agent, count, code, text);
    std::replace(part.begin() + 1, part.end(), '\n', ' ');
    return part;
}

bool IsLoss(JournalFate fate)
{
    return fate == JournalFate::HandlerFailed || fate == JournalFate::AgentEnded ||
           fate == JournalFate::Lost;
}

bool MayComeLater(JournalFate fate)
{
    return fate == JournalFate::Gathered || fate == JournalFate::Counted || fate == JournalFate::Noted;
}

bool IsFinal(JournalDelivery state) { return state != JournalDelivery::Waiting; }

// The ID of a record that may be none.
std::string_view IdOf(std::string_view record)
{
    if (record.size() < KELRECORD_BYTES_MIN) return "?";
    std::string_view id = record.substr(KELRECORD_HEADER_BYTES, KELRECORD_ID_CHARS_MAX + 1);
    return id.substr(0, id.find('\0'));
}

} // namespace

std::int64_t OriginKey(std::int64_t run, const JournalOrigin &origin)
{
    return (run << kAgentBits | (origin.agent & ((1 << kAgentBits) - 1))) << kCountBits |
           static_cast<std::int64_t>(origin.count & ((1ULL << kCountBits) - 1));
}

Keeper::Keeper(Store *store, const Knowledge *knowledge) : mStore(store), mKnowledge(knowledge)
{
    Statement last(mStore->Data(), "SELECT coverage, run, time, until, before, last, ended FROM coverage "
                                   "ORDER BY coverage DESC LIMIT 1");
    if (last.Step()) {
        mCoverage = {last.Integer(0), last.Integer(1),  last.Unsigned(2), last.Unsigned(3),
                     std::nullopt,    last.Unsigned(5), std::nullopt};
        if (!last.IsNull(4)) mCoverage.before = last.Unsigned(4);
        if (!last.IsNull(6)) mCoverage.ended = static_cast<CoverageEnd>(last.Integer(6));
    }
    mRun = LastRun(mStore->Data());
    mReceiverAway = mStore->Data().Number("SELECT count(*) FROM notice WHERE until = 0") != 0;
}

void Keeper::Hear(const JournalEntry &entry)
{
    mTime = entry.microseconds;
    std::visit([this](const auto &body) { On(body); }, entry.body);
    if (mListening) mCoverage.until = mTime;
}

void Keeper::On(const JournalHello &hello)
{
    std::string identity = fmt::format("{}/{}/{}", hello.boot, hello.process, hello.startTicks);
    Statement find(mStore->Data(), "SELECT run FROM run WHERE identity = ?");
    std::int64_t before = mRun;
    bool known = find.With(std::string_view(identity)).Step();
    if (identity != mIdentity) mRun = known ? find.Integer(0) : mRun + 1;
    mIdentity = identity;
    mBatch.runs.push_back({mRun, identity, std::string(hello.version), hello.since});
    if (mRun != before) mCoverage.last = 0;
    mAgents.clear();
    for (const JournalAgent &agent : hello.agents) {
        mAgents[agent.number] = {std::string(agent.name), mStore->NameOf(agent.name), {}};
        mBatch.agents.push_back({mRun, agent.number, mAgents[agent.number].name});
    }
    if (mWaiting) mCoverage.ended = CoverageEnd::DaemonCame;
    mWaiting = false;
    NewCoverage(mRun, mTime);
    mListening = true;
}

void Keeper::NewCoverage(std::int64_t run, std::uint64_t time)
{
    if (mCoverage.coverage != 0) mBatch.coverage[mCoverage.coverage] = mCoverage;
    mCoverage = {mCoverage.coverage + 1, run, time, time, std::nullopt, mCoverage.last, std::nullopt};
}

void Keeper::On(const JournalBegin &begin)
{
    mCoverage.before = begin.observations;
    if (begin.observations > mCoverage.last)
        mBatch.Count(mTime, Sum::Missing, 0, 0,
                     static_cast<std::int64_t>(begin.observations - mCoverage.last));
}

void Keeper::On(const JournalIn &in)
{
    std::string_view id = IdOf(in.record.bytes);
    ObservationRow &row = mBatch.observations.emplace_back();
    row.key = KeyOf(mRun, in.observation);
    row.time = mTime;
    row.id = mStore->NameOf(id);
    row.channel = in.channel;
    row.record = in.record.bytes;
    mBatch.Count(mTime, Sum::Observations);
    mBatch.CountNoise(mTime, Noise::Id, row.id, 1);
    if (auto object = mKnowledge->ObjectOf(id, in.record.bytes)) {
        row.object = mStore->NameOf(object->text);
        row.argument = object->argument;
        mBatch.CountNoise(mTime, Noise::Object, *row.object, 1);
    }
    if (in.to.empty()) mBatch.Count(mTime, Sum::Nobody);
    for (const JournalOrigin &to : in.to) {
        Agent &agent = mAgents[to.agent];
        agent.pending.push_back({to.count, row.key, mTime});
        row.fates += FateText(to.agent, to.count, 0, "");
        mBatch.Count(mTime, Sum::Handed, agent.name);
    }
    mCoverage.last = in.observation;
}

void Keeper::On(const JournalDropped &dropped)
{
    mBatch.Count(mTime, Sum::Refused, 0, dropped.channel);
    Notice(NoticeKind::kRefused,
           fmt::format("channel {} refused {} bytes: {}", dropped.channel, dropped.bytes, dropped.why), 1);
}

void Keeper::On(const JournalFateEntry &fate)
{
    Agent &agent = mAgents[fate.origin.agent];
    // An agent takes observations in their order. Those before this one that have no fate had theirs told
    // in a gap.
    while (!agent.pending.empty() && agent.pending.front().count < fate.origin.count)
        agent.pending.pop_front();
    if (agent.pending.empty() || agent.pending.front().count != fate.origin.count) return;
    Pending pending = agent.pending.front();
    agent.pending.pop_front();
    SetFate(fate.origin.agent, pending, fate.fate, fate.text);
}

void Keeper::SetFate(std::uint16_t agent, const Pending &pending, JournalFate fate, std::string_view text)
{
    std::string was = FateText(agent, pending.count, 0, "");
    std::string is = FateText(agent, pending.count, static_cast<int>(fate), text);
    std::optional<std::int64_t> origin;
    if (MayComeLater(fate)) origin = OriginKey(mRun, {agent, pending.count});
    mBatch.Count(pending.time, Sum::Fate, mAgents[agent].name, static_cast<int>(fate));
    if (ObservationRow *row = InBatch(pending.key)) {
        if (size_t at = row->fates.find(was); at != std::string::npos)
            row->fates.replace(at, was.size(), is);
        row->lost = row->lost || IsLoss(fate);
        if (origin) {
            row->origin = origin;
            mGathered[*origin] = pending.key;
        }
    } else {
        mBatch.lateFates.push_back({pending.key, was, is, IsLoss(fate), origin});
        if (origin) mGathered[*origin] = pending.key;
    }
}

void Keeper::On(const JournalLost &lost)
{
    Agent &agent = mAgents[lost.agent];
    while (!agent.pending.empty() && agent.pending.front().count <= lost.queued) {
        Pending pending = agent.pending.front();
        agent.pending.pop_front();
        if (pending.count > lost.taken) SetFate(lost.agent, pending, lost.fate, "");
    }
    if (lost.queued > lost.taken)
        Notice(NoticeKind::kLost,
               fmt::format("{} had not taken {} observations when {}", agent.text, lost.queued - lost.taken,
                           lost.fate == JournalFate::Lost ? "the daemon ended" : "it ended"),
               lost.queued - lost.taken);
}

void Keeper::On(const JournalOutcomeEntry &outcome)
{
    for (const JournalOrigin &origin : outcome.origins)
        if (std::int64_t key = KeyOfOrigin(origin))
            mBatch.outcomes.push_back(
                {key, mTime, static_cast<int>(outcome.outcome), std::string(outcome.text)});
}

void Keeper::On(const JournalOut &out)
{
    EventRow row;
    row.key = KeyOf(mRun, out.event);
    row.time = mTime;
    row.type = mStore->NameOf(out.type);
    row.record = out.record.bytes;
    row.unnamed = out.unnamed;
    for (const JournalOrigin &origin : out.origins) {
        std::int64_t cause = KeyOfOrigin(origin);
        if (cause == 0) {
            row.unnamed++; // of a time that was not recorded
            continue;
        }
        row.causes += fmt::format("{}{}", row.causes.empty() ? "" : ",", NumberOf(cause));
        SetEvent(cause, out.event);
    }
    row.causes = "[" + row.causes + "]";
    mBatch.Count(mTime, Sum::Events);
    mBatch.CountNoise(mTime, Noise::EventType, row.type, 1);

    EventRecord event;
    std::string error;
    if (EventRecord_Decode(std::as_bytes(std::span(out.record.bytes)), &event, &error) == 0) {
        if (auto object = mKnowledge->ObjectOf(event)) {
            row.object = mStore->NameOf(object->text);
            row.argument = object->argument;
            mBatch.CountNoise(mTime, Noise::EventObject, *row.object, 1);
        }
        KeepProblem(row, event);
    }
    // One that was dropped has no record: it is about what its observation is about.
    if (!row.object && out.record.bytes.empty() && !out.origins.empty())
        if (const ObservationRow *cause = InBatch(KeyOfOrigin(out.origins.front()));
            cause && cause->object) {
            row.object = cause->object;
            mBatch.CountNoise(mTime, Noise::EventObject, *row.object, 1);
        }
    mEventRows[row.key] = mBatch.events.size();
    mBatch.events.push_back(std::move(row));
}

void Keeper::SetEvent(std::int64_t observation, std::uint64_t event)
{
    std::string text = fmt::format(" {}", event);
    if (ObservationRow *row = InBatch(observation))
        row->events += text;
    else
        mBatch.lateEvents.push_back({observation, text});
}

void Keeper::KeepProblem(const EventRow &row, const EventRecord &event)
{
    if (event.typeId.starts_with("nox.problem.")) {
        auto object = mKnowledge->ObjectOf(event);
        mBatch.problems.push_back({false, row.type, object ? object->text : "",
                                   mKnowledge->PairingOf(event), mKnowledge->IsClearable(event.typeId),
                                   row.key, row.time});
        return;
    }
    for (const Knowledge::Ended &ended : mKnowledge->EndedBy(event))
        mBatch.problems.push_back(
            {true, mStore->NameOf(ended.type), "", ended.pairing, true, row.key, row.time});
}

void Keeper::On(const JournalDeliveryEntry &delivery)
{
    std::int64_t key = KeyOf(mRun, delivery.event);
    int code = static_cast<int>(delivery.state);
    std::optional<EventNames> event;
    if (auto found = mEventRows.find(key); found != mEventRows.end()) {
        EventRow &row = mBatch.events[found->second];
        row.delivery = code;
        row.tries = delivery.tries;
        row.delivered = mTime;
        event = {row.time, row.type, row.object};
    } else {
        mBatch.lateDeliveries.push_back({key, code, delivery.tries, mTime});
        event = mStore->NamesOfEvent(key);
        if (!event) return; // of a time that was not recorded
    }
    if (delivery.state == JournalDelivery::Limited) {
        mBatch.CountNoise(event->time, Noise::EventType, event->type, 0, 1);
        if (event->object) mBatch.CountNoise(event->time, Noise::EventObject, *event->object, 0, 1);
    }
    if (IsFinal(delivery.state)) mBatch.Count(event->time, Sum::Delivery, 0, code);
    Receiver(delivery.state);
}

// The receiver is away from the first event that waits until the next one that it takes.
void Keeper::Receiver(JournalDelivery state)
{
    if (state == JournalDelivery::Waiting) {
        mEventsWaited++;
        if (mReceiverAway) return;
        mReceiverAway = true;
        mBatch.notices.push_back(
            {mTime, 0, std::string(NoticeKind::kReceiver), "the receiver took no event", {}});
    } else if (state == JournalDelivery::Delivered && mReceiverAway) {
        mBatch.notices.push_back({0, mTime, std::string(NoticeKind::kReceiver), "", mEventsWaited});
        mReceiverAway = false;
        mEventsWaited = 0;
    }
}

void Keeper::On(const JournalGap &)
{
    mCoverage.ended = CoverageEnd::TooSlow;
    NewCoverage(mRun, mTime);
}

void Keeper::On(const JournalEnd &) { mCoverage.ended = CoverageEnd::DaemonEnded; }

void Keeper::Ended(CoverageEnd why)
{
    if ((mListening || mWaiting) && !mCoverage.ended) mCoverage.ended = why;
    mListening = mWaiting = false;
    mAgents.clear();
}

void Keeper::NoDaemon(std::uint64_t elapsed, std::uint64_t now)
{
    if (mListening || mWaiting || mCoverage.coverage == 0) return;
    if (mTime == 0) mTime = now - elapsed;
    NewCoverage(0, mTime + elapsed);
    mWaiting = true;
}

void Keeper::Inventory(const std::string &path, const std::string &value, int change, std::uint64_t elapsed)
{
    mBatch.inventory.push_back({mTime + elapsed, path, value, change});
}

void Keeper::Flush(std::uint64_t elapsed)
{
    if (mCoverage.coverage != 0) {
        if (mListening || mWaiting) mCoverage.until = std::max(mCoverage.until, mTime + elapsed);
        mBatch.coverage[mCoverage.coverage] = mCoverage;
    }
    mStore->Write(&mBatch, mTime);
    mGathered.clear();
    mEventRows.clear();
}

ObservationRow *Keeper::InBatch(std::int64_t key)
{
    auto row = std::ranges::lower_bound(mBatch.observations, key, {}, &ObservationRow::key);
    return row != mBatch.observations.end() && row->key == key ? &*row : nullptr;
}

std::int64_t Keeper::KeyOfOrigin(const JournalOrigin &origin)
{
    const std::deque<Pending> &pending = mAgents[origin.agent].pending;
    auto with = std::ranges::lower_bound(pending, origin.count, {}, &Pending::count);
    if (with != pending.end() && with->count == origin.count) return with->key;
    std::int64_t key = OriginKey(mRun, origin);
    if (auto gathered = mGathered.find(key); gathered != mGathered.end()) return gathered->second;
    return mStore->KeyOfOrigin(key);
}

void Keeper::Notice(std::string_view kind, std::string text, std::optional<std::uint64_t> count)
{
    mBatch.notices.push_back({mTime, mTime, std::string(kind), std::move(text), count});
}
