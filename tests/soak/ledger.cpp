#include "ledger.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

namespace {

constexpr int kFailuresMax = 20; // shown

// What nothing in a healthy daemon writes.
constexpr const char *kNever[] = {
    "Keld - Panic",   "Exception (", "Unknown exception",  "Failed to get Kel",
    "Failed to poll", ": dropped ",  "Failed to allocate", "Invalid argument in kel"};

bool HasTag(const std::string &text) { return FindTag(text).has_value(); }

// The text between the two, when the line has the first.
std::optional<std::string> Between(const std::string &line, std::string_view first, const char *last)
{
    const std::size_t at = line.find(first);
    if (at == line.npos) return std::nullopt;
    const std::size_t begin = at + first.size();
    return line.substr(begin, line.find(last, begin) - begin);
}

} // namespace

Ledger::Ledger(const Traffic &traffic) : mTraffic(traffic), mOwed(traffic.Agents().size()) {}

ProducerLife &Ledger::Begin()
{
    const std::lock_guard guard(mMutex);
    const Serial first = mLives.size() << kSerialBits;
    ProducerLife &life = mLives.emplace_back();
    life.next = first;
    life.taken.assign(mOwed.size(), first);
    life.delivered.assign(mOwed.size(), first);
    return life;
}

// ---- The log ---------------------------------------------------------------------------------------

void Ledger::TakeLog(std::string_view lines)
{
    for (std::size_t end; (end = lines.find('\n')) != lines.npos; lines.remove_prefix(end + 1))
        TakeLine(std::string(lines.substr(0, end)));
}

void Ledger::TakeLine(const std::string &line)
{
    const std::size_t time = line.find("Z: [");
    char name[32], id[160];
    unsigned long long stamp = 0;
    if (time != line.npos &&
        std::sscanf(line.c_str() + time, "Z: [%31[^]]] %lluus: [%159[^]]", name, &stamp, id) == 3) {
        const auto found = std::ranges::find(mTraffic.Agents(), name, &Traffic::Agent::name);
        const auto agent = static_cast<std::size_t>(found - mTraffic.Agents().begin());
        if (agent == mOwed.size()) return Fail(line);
        if (std::string_view(id).starts_with("nox.")) return TakePosted(id);
        return TakeIn(agent, stamp - kObservationTime);
    }
    if (const auto unknown = Between(line, "orrelator for ", " ")) {
        const Serial serial = FindTag(*unknown).value_or(0);
        return TakeIn(mTraffic.KindOf(serial).agent, serial);
    }
    if (const auto type = Between(line, "Dropping pling: ", "\n")) {
        ++mTotal.dropped;
        Settle(*type);
    }
    if (const auto type = Between(line, "An event (", ") could not be sent")) {
        const auto posted = mUnderway.find(Book(*type, -1, mTotal.queued).last);
        mTotal.waitedMost = std::max(mTotal.waitedMost, mTotal.queued - mTotal.resent - mTotal.abandoned);
        if (posted != mUnderway.end()) posted->second = true;
    }
    if (const auto type = Between(line, "Successfully sent event (", ")")) Book(*type, 1, mTotal.resent);
    if (const auto type = Between(line, "Abandoned event (", ")")) Book(*type, 0, mTotal.abandoned);
    if (line.find("does not read; ") != line.npos) ++mTotal.disconnected;
    for (const char *never : kNever)
        if (line.find(never) != line.npos) Fail(line);
}

// The agent's place in what the producer has sent moves to behind this one, which must be the next.
void Ledger::TakeIn(std::size_t agent, Serial serial)
{
    ProducerLife *life = Sent(serial);
    const TrafficKind &kind = mTraffic.KindOf(serial);
    if (life == nullptr || !kind.IsTakenBy(agent))
        return Fail("taken in, but not sent, or not the agent's: " + ToTag(serial));
    const std::string &name = mTraffic.Agents()[agent].name;
    if (mOwed[agent]) Fail(name + " has neither posted nor dropped " + ToTag(*mOwed[agent]));
    Serial &next = life->taken[agent];
    PassOver(next, agent, serial);
    if (next != serial)
        Fail(name + " has taken in " + ToTag(serial) + " where " + ToTag(next) + " was next");
    next = serial + 1;
    ++mTotal.takenIn;
    mOwed[agent].reset();
    if (!kind.event.empty() && kind.agent == agent) mOwed[agent] = serial;
}

void Ledger::TakePosted(const std::string &type)
{
    Account &account = Book(type, 1, mTotal.posted);
    const std::optional<Serial> serial = Settle(type);
    if (!serial) return;
    account.last = *serial;
    if (std::ranges::any_of(mTraffic.Make(*serial).shown, HasTag)) mUnderway[*serial] = false;
}

// Which observation's event it was; none for an event from state. The agent owes it no more.
std::optional<Serial> Ledger::Settle(const std::string &type)
{
    for (std::optional<Serial> &owed : mOwed)
        if (owed && mTraffic.KindOf(*owed).event == type) return std::exchange(owed, std::nullopt);
    if (mTraffic.IsOfAKind(type)) Fail("posted or dropped without being asked for: " + type);
    return std::nullopt;
}

// ---- The receiver ------------------------------------------------------------------------------------

void Ledger::TakeEvent(const EventRecord &event)
{
    Book(event.typeId, -1, mTotal.delivered);
    std::vector<std::string> shown;
    std::optional<Serial> serial;
    for (const EventArgument &argument : event.arguments) {
        shown.push_back(argument.ToText());
        if (!serial) serial = FindTag(shown.back());
    }
    if (!serial) return;
    const auto posted = mUnderway.find(*serial);
    if (posted == mUnderway.end())
        return Fail(event.typeId + ToTag(*serial) + " has come twice, or without being posted");
    EXPECT_EQ(mTraffic.Make(*serial).shown, shown) << event.typeId;
    if (!posted->second) { // what was queued may come late
        Serial &next = Sent(*serial)->delivered[mTraffic.KindOf(*serial).agent];
        if (*serial < next) Fail(event.typeId + ToTag(*serial) + " has come out of order");
        next = *serial + 1;
    }
    mUnderway.erase(posted);
}

// ---- What is owed ------------------------------------------------------------------------------------

std::string Ledger::Owed()
{
    std::ostringstream owed;
    const std::lock_guard guard(mMutex);
    for (std::size_t agent = 0; agent < mOwed.size(); ++agent) {
        const std::string &name = mTraffic.Agents()[agent].name;
        if (mOwed[agent]) owed << name << " owes the event of " << ToTag(*mOwed[agent]) << "\n";
        for (ProducerLife &life : mLives) {
            PassOver(life.taken[agent], agent, life.next);
            if (life.taken[agent] != life.next)
                owed << name << " has not taken in " << ToTag(life.taken[agent]) << "\n";
        }
    }
    for (const auto &[type, account] : mAccounts)
        if (account.underway != 0) owed << account.underway << " of " << type << " have not come\n";
    for (const auto &[serial, queued] : mUnderway)
        if (!queued) owed << "the event of " << ToTag(serial) << " has not come\n";
    return owed.str();
}

// Moves next to what the agent takes, if that is before end.
void Ledger::PassOver(Serial &next, std::size_t agent, Serial end) const
{
    while (next < end && !mTraffic.KindOf(next).IsTakenBy(agent))
        ++next;
}

// Null when it was not.
ProducerLife *Ledger::Sent(Serial serial)
{
    const std::lock_guard guard(mMutex);
    const Serial producer = serial >> kSerialBits;
    return producer < mLives.size() && serial < mLives[producer].next ? &mLives[producer] : nullptr;
}

Ledger::Account &Ledger::Book(const std::string &type, int underway, std::uint64_t &total)
{
    Account &account = mAccounts[type];
    account.underway += underway;
    ++total;
    return account;
}

void Ledger::Fail(const std::string &what)
{
    if (++mFailures <= kFailuresMax) ADD_FAILURE() << what;
}
