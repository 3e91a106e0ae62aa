#include "ledger.h"

#include <bit>
#include <charconv>
#include <gtest/gtest.h>
#include <sstream>

namespace {

constexpr int kFailuresMax = 20; // shown

// What nothing in a healthy daemon writes.
constexpr std::string_view kNever[] = {
    "Keld - Panic",   "Exception (", "Unknown exception",  "Failed to get Kel",
    "Failed to poll", ": dropped ",  "Failed to allocate", "Invalid argument in kel"};

// The text up to the mark, which is taken away with it; nothing when there is none.
std::optional<std::string_view> Cut(std::string_view &text, std::string_view mark)
{
    const std::size_t at = text.find(mark);
    if (at == text.npos) return std::nullopt;
    const std::string_view before = text.substr(0, at);
    text.remove_prefix(at + mark.size());
    return before;
}

// The text between two marks, when the line has the first one.
std::optional<std::string_view> Between(std::string_view line, std::string_view first,
                                        std::string_view last)
{
    if (!Cut(line, first)) return std::nullopt;
    return last.empty() ? line : Cut(line, last);
}

} // namespace

Ledger::Ledger(const Traffic &traffic) : mTraffic(traffic)
{
    for (std::size_t agent = 0; agent < kAgents; ++agent) {
        mNames[agent] = std::string(keldCorrelators[agent].domain.name) + "Correlator";
        mAgents[mNames[agent]] = agent;
    }
    for (const auto &[type, agent] : traffic.Posters()) {
        TypeAccount &account = mAccounts[type];
        account.agent = agent;
        account.hasState = traffic.HasState(type);
        account.tag = traffic.TagOf(type);
    }
}

std::shared_ptr<ProducerLife> Ledger::Begin(std::uint32_t producer)
{
    auto life = std::make_shared<ProducerLife>(mTraffic.Script(producer));
    const std::lock_guard guard(mMutex);
    mLives[producer] = life;
    return life;
}

void Ledger::TakeLog(std::string_view lines)
{
    while (const std::optional<std::string_view> line = Cut(lines, "\n"))
        TakeLine(*line);
}

// "<6>2026-03-01T12:00:00.000Z: " and then one of: "[agent] 123us: [id] text"; a line on an event.
void Ledger::TakeLine(std::string_view line)
{
    Cut(line, "Z: "); // the platform's own lines have no time
    if (line.starts_with('[')) {
        line.remove_prefix(1);
        const auto agent = mAgents.find(Cut(line, "] ").value_or(""));
        const std::string_view time = Cut(line, "us: [").value_or("");
        const std::string_view id = Cut(line, "]").value_or("");
        if (agent == mAgents.end() || id.empty()) return;
        std::uint64_t microseconds = 0;
        std::from_chars(time.data(), time.data() + time.size(), microseconds);
        if (id.starts_with("nox."))
            TakePosted(agent->second, id);
        else
            TakeObservation(agent->second, Serial::FromTimestamp(microseconds));
    } else if (const auto dropped = Between(line, "Dropping pling: ", "")) {
        TakeDropped(*dropped);
    } else if (const auto unheard = Between(line, "orrelator for ", "")) {
        TakeUnheard(*unheard);
    } else if (const auto queued = Between(line, "An event (", ") could not be sent")) {
        if (TypeAccount *account = Account(*queued)) {
            ++account->queued;
            const auto found = mOutstanding.find(account->last);
            if (account->tag && found != mOutstanding.end()) found->second.queued = true;
        }
    } else if (const auto resent = Between(line, "Successfully sent event (", ")")) {
        if (TypeAccount *account = Account(*resent)) ++account->resent;
    } else if (const auto abandoned = Between(line, "Abandoned event (", ")")) {
        if (TypeAccount *account = Account(*abandoned)) ++account->abandoned;
    } else if (Between(line, "does not read; ", "")) {
        ++mDisconnected;
    } else {
        for (const std::string_view never : kNever)
            if (line.find(never) != line.npos) Fail(std::string(line));
    }
}

void Ledger::TakeObservation(std::size_t agent, Serial serial)
{
    ProducerLife *life = Sent(serial);
    if (life == nullptr) return;
    Owed &owed = mOwed[agent];
    if (owed.pending) Fail(mNames[agent] + " has neither posted nor dropped " + owed.serial.ToTag());
    Advance(*life, agent, serial);
    const std::uint16_t index = life->script[serial.number];
    const TrafficKind &kind = mTraffic.Kind(index);
    owed = {kind.row != nullptr && kind.postedBy == agent, serial, index};
}

void Ledger::TakeUnheard(std::string_view id)
{
    const Serial serial = Serial::FromText(id).value_or(Serial{});
    ProducerLife *life = Sent(serial);
    if (life == nullptr) return;
    const TrafficKind &kind = mTraffic.Kind(life->script[serial.number]);
    if (!kind.unheard || !id.starts_with(kind.id)) return Fail("named as unknown: " + std::string(id));
    Advance(*life, static_cast<std::size_t>(std::countr_zero(kind.takers)), serial);
}

// Moves the agent's place in what the producer has sent to behind this one, which must be the next.
void Ledger::Advance(ProducerLife &life, std::size_t agent, Serial serial)
{
    std::uint32_t &next = life.next[agent];
    while (next < serial.number && !mTraffic.Kind(life.script[next]).IsTakenBy(agent))
        ++next;
    if (next != serial.number)
        Fail(mNames[agent] + " has taken in " + serial.ToTag() + " where number " + std::to_string(next) +
             " was next");
    next = serial.number + 1;
    ++mTakenIn;
}

void Ledger::TakePosted(std::size_t agent, std::string_view type)
{
    TypeAccount *account = Account(type);
    if (account == nullptr) return;
    Owed &owed = mOwed[agent];
    if (owed.pending && mTraffic.Kind(owed.kind).row->event.TypeId() == type) {
        owed.pending = false;
        account->last = owed.serial;
        if (account->tag) mOutstanding[owed.serial] = {owed.kind, false};
    } else if (!account->hasState || account->agent != agent) {
        Fail(mNames[agent] + " has posted " + std::string(type) + " without being asked");
    }
    ++account->posted;
    ++mPosted;
}

void Ledger::TakeDropped(std::string_view type)
{
    TypeAccount *account = Account(type);
    if (account == nullptr) return;
    Owed &owed = mOwed[account->agent];
    if (owed.pending && mTraffic.Kind(owed.kind).row->event.TypeId() == type)
        owed.pending = false;
    else if (!account->hasState)
        Fail("dropped without being posted: " + std::string(type));
    ++mDropped;
}

void Ledger::TakeEvent(const EventRecord &event)
{
    TypeAccount *account = Account(event.typeId);
    if (account == nullptr) return;
    ++account->delivered;
    if (account->delivered > account->posted)
        Fail(event.typeId + " has come more often than it was posted");
    if (!account->tag) return;
    const std::string tagged = event.arguments.size() > *account->tag
                                   ? event.arguments[*account->tag].ToText()
                                   : std::string("(no argument)");
    const std::optional<Serial> serial = Serial::FromText(tagged);
    const auto found = serial ? mOutstanding.find(*serial) : mOutstanding.end();
    if (found == mOutstanding.end())
        return Fail(event.typeId + " of " + tagged + " has come twice, or without being posted");

    std::vector<std::string> shown;
    for (const EventArgument &argument : event.arguments)
        shown.push_back(argument.ToText());
    EXPECT_EQ(mTraffic.Shown(found->second.kind, *serial), shown) << event.typeId;
    if (!found->second.queued) {
        std::int64_t &last = Life(serial->producer)->delivered[account->agent];
        if (serial->number <= last) Fail(event.typeId + " of " + tagged + " has come out of order");
        last = serial->number;
    }
    mOutstanding.erase(found);
}

void Ledger::Settle()
{
    mEven = Unsettled().empty();
    ++mSettled;
}

std::string Ledger::Unsettled() const
{
    std::ostringstream owed;
    {
        const std::lock_guard guard(mMutex);
        for (const auto &[producer, life] : mLives) {
            if (life->complete) continue;
            bool complete = life->ended;
            for (std::size_t agent = 0; agent < kAgents; ++agent) {
                std::uint32_t &next = life->next[agent];
                while (next < life->sent && !mTraffic.Kind(life->script[next]).IsTakenBy(agent))
                    ++next;
                if (next == life->sent) continue;
                complete = false;
                owed << mNames[agent] << " has not taken in " << Serial{producer, next}.ToTag() << "\n";
            }
            life->complete = complete;
            if (complete) life->script = {};
        }
    }
    for (std::size_t agent = 0; agent < kAgents; ++agent)
        if (mOwed[agent].pending)
            owed << mNames[agent] << " owes the event of " << mOwed[agent].serial.ToTag() << "\n";
    for (const auto &[type, account] : mAccounts) {
        const std::uint64_t waiting = account.queued - account.resent;
        if (account.posted != account.delivered + waiting)
            owed << type << ": " << account.posted << " posted, " << account.delivered << " came, "
                 << waiting << " wait or were abandoned\n";
    }
    for (const auto &[serial, posted] : mOutstanding)
        if (!posted.queued) owed << "the event of " << serial.ToTag() << " has not come\n";
    return owed.str();
}

std::string Ledger::Summary() const
{
    TypeAccount all;
    for (const auto &[type, account] : mAccounts) {
        all.posted += account.posted;
        all.delivered += account.delivered;
        all.queued += account.queued;
        all.resent += account.resent;
        all.abandoned += account.abandoned;
    }
    std::ostringstream text;
    text << mTakenIn << " observations taken in by agents, " << all.posted << " events posted, " << mDropped
         << " dropped by the rate limit, " << all.delivered << " delivered, " << all.queued
         << " queued, of which " << all.resent << " were sent again, " << all.abandoned << " abandoned, "
         << all.queued - all.resent - all.abandoned << " wait";
    return text.str();
}

ProducerLife *Ledger::Life(std::uint32_t producer)
{
    const std::lock_guard guard(mMutex);
    const auto found = mLives.find(producer);
    return found == mLives.end() ? nullptr : found->second.get();
}

ProducerLife *Ledger::Sent(Serial serial)
{
    ProducerLife *life = Life(serial.producer);
    if (life != nullptr && !life->complete && serial.number < life->sent) return life;
    Fail("taken in, but not sent, or twice: " + serial.ToTag());
    return nullptr;
}

Ledger::TypeAccount *Ledger::Account(std::string_view type)
{
    const auto found = mAccounts.find(type);
    if (found != mAccounts.end()) return &found->second;
    Fail("an event that nothing can become: " + std::string(type));
    return nullptr;
}

void Ledger::Fail(const std::string &what)
{
    if (++mFailures <= kFailuresMax) ADD_FAILURE() << what;
}
