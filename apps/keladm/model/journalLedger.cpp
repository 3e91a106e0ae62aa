#include "journalLedger.h"

#include <fmt/format.h>

namespace {

constexpr std::size_t kFaultsMax = 10;

} // namespace

void JournalLedger::Take(const JournalEntry &entry)
{
    if (mNext != 0 && entry.number != mNext)
        Fault(fmt::format("entry {} comes where {} should", entry.number, mNext));
    const auto *gap = std::get_if<JournalGap>(&entry.body);
    const bool isHello = std::holds_alternative<JournalHello>(entry.body);
    mNext = (gap != nullptr ? gap->last : entry.number) + (isHello ? 0 : 1);
    if (gap != nullptr) mTotal.missing += gap->last - entry.number + 1;
    std::visit([this](const auto &body) { Follow(body); }, entry.body);
}

std::vector<std::string> JournalLedger::Open() const
{
    std::vector<std::string> open;
    for (const auto &[number, agent] : mAgents)
        if (agent.done < agent.told)
            open.push_back(fmt::format("{} has no fate for its observations {} to {}", agent.name,
                                       agent.done + 1, agent.told));
    for (const auto &[event, state] : mEvents)
        if (state == Event::Out)
            open.push_back(fmt::format("event {} is not delivered and does not wait", event));
    return open;
}

void JournalLedger::Follow(const JournalHello &hello)
{
    for (const JournalAgent &agent : hello.agents)
        mAgents[agent.number].name = agent.name;
}

void JournalLedger::Follow(const JournalBegin &begin)
{
    if (mBegun && begin.observations != mObserved)
        Fault(fmt::format("{} observations have come in, {} were told", begin.observations, mObserved));
    for (const auto &[number, count] : begin.queued) {
        Agent &agent = mAgents[number];
        if (mBegun && agent.told != count)
            Fault(fmt::format("{} observations went to {}, {} were told", count, agent.name, agent.told));
        if (!mBegun) agent.base = agent.told = agent.done = count;
    }
    if (!mBegun) {
        mObserved = begin.observations;
        mEventsBefore = begin.events;
        std::erase_if(mEvents, [&](const auto &entry) { return entry.first <= begin.events; });
    }
    mBegun = true;
}

void JournalLedger::Follow(const JournalIn &in)
{
    if (!mBegun) return;
    if (in.observation != mObserved + 1)
        Fault(fmt::format("observation {} comes behind {}", in.observation, mObserved));
    mObserved = in.observation;
    ++mTotal.observations;
    if (in.to.empty()) ++mTotal.unwanted;
    for (const auto &[number, count] : in.to) {
        Agent &agent = mAgents[number];
        if (count != agent.told + 1)
            Fault(fmt::format("observation {} of {} comes behind {}", count, agent.name, agent.told));
        agent.told = count;
        ++mTotal.handed;
    }
}

void JournalLedger::Follow(const JournalFateEntry &fate)
{
    Agent &agent = mAgents[fate.origin.agent];
    if (!mBegun || fate.origin.count <= agent.base) return;
    if (fate.origin.count != agent.done + 1 || fate.origin.count > agent.told)
        Fault(fmt::format("{} has a fate for its observation {}, where {} of {} is next", agent.name,
                          fate.origin.count, agent.done + 1, agent.told));
    agent.done = fate.origin.count;
    ++mTotal.fates;
}

void JournalLedger::Follow(const JournalLost &lost)
{
    Agent &agent = mAgents[lost.agent];
    if (!mBegun || lost.queued <= agent.base) return;
    const std::uint64_t taken = std::max(lost.taken, agent.base);
    if (taken != agent.done || lost.queued != agent.told)
        Fault(fmt::format("{} has lost what lies behind {} up to {}; {} have a fate, {} went to it",
                          agent.name, lost.taken, lost.queued, agent.done, agent.told));
    mTotal.lost += lost.queued - taken;
    agent.done = agent.told = lost.queued;
}

void JournalLedger::Follow(const JournalOut &out)
{
    if (mBegun && out.event <= mEventsBefore) return;
    if (!mEvents.emplace(out.event, Event::Out).second)
        Fault(fmt::format("event {} was made twice", out.event));
    ++mTotal.events;
}

void JournalLedger::Follow(const JournalDeliveryEntry &delivery)
{
    const auto event = mEvents.find(delivery.event);
    if (event == mEvents.end()) {
        if (mBegun && delivery.event > mEventsBefore)
            Fault(fmt::format("event {} is {}: it was done with, or never made", delivery.event,
                              JournalWord(delivery.state)));
        return;
    }
    const bool waited = event->second == Event::Waiting;
    const bool waits = delivery.state == JournalDelivery::Waiting;
    mTotal.waiting = mTotal.waiting + (waits ? 1 : 0) - (waited ? 1 : 0);
    if (waits)
        event->second = Event::Waiting;
    else
        mEvents.erase(event),
            ++(delivery.state == JournalDelivery::Delivered ? mTotal.delivered : mTotal.failed);
}

void JournalLedger::Follow(const JournalGap &)
{
    // What is open is not known any more; the next begin says where it goes on.
    mBegun = false;
    mEvents.clear();
    mTotal.waiting = 0;
    for (auto &[number, agent] : mAgents)
        agent.done = agent.told;
}

void JournalLedger::Follow(const JournalEnd &end)
{
    mEnded = true;
    if (mBegun && end.observations != mObserved)
        Fault(fmt::format("{} observations have come in, {} were told", end.observations, mObserved));
    for (const std::string &what : Open())
        Fault("at the end " + what);
    for (const auto &[event, state] : mEvents)
        if (state == Event::Waiting) Fault(fmt::format("at the end event {} waits", event));
}

void JournalLedger::Fault(std::string what)
{
    if (mFaults.size() < kFaultsMax) mFaults.push_back(std::move(what));
}
