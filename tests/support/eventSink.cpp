#include "eventSink.h"

#include "unixSocket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <string_view>

namespace {

using Bytes = std::vector<std::byte>;

constexpr char kSocket[] = "carad-pling.sock";

// One connection's bytes to its end.
Bytes ReadToEnd(const UniqueFd &connection)
{
    Bytes bytes;
    std::byte piece[4096];
    while (WaitForEvents(connection.Get(), POLLIN) != 0) {
        const ssize_t got = read(connection.Get(), piece, sizeof piece);
        if (got <= 0) return bytes;
        bytes.insert(bytes.end(), piece, piece + got);
    }
    ADD_FAILURE() << "a sender keeps its connection open without sending";
    return bytes;
}

std::vector<EventRecord> Decoded(const std::vector<Bytes> &records)
{
    std::vector<EventRecord> events(records.size());
    std::string error;
    for (std::size_t i = 0; i < records.size(); ++i)
        EXPECT_EQ(0, EventRecord_Decode(records[i], &events[i], &error))
            << "not an event record: " << error;
    return events;
}

std::vector<std::string> Texts(const std::vector<EventRecord> &events)
{
    std::vector<std::string> texts;
    for (const EventRecord &event : events)
        texts.push_back(ToText(event));
    return texts;
}

} // namespace

std::string ToText(const EventRecord &event)
{
    std::string text = event.typeId + "(";
    std::string_view separator = "";
    for (const EventArgument &argument : event.arguments) {
        text.append(separator).append(argument.ToText());
        separator = ", ";
    }
    return text + ")";
}

void EventSink::Start(int backlog)
{
    if (!mFd) mFd = ListenAt(RunPath(kSocket), backlog);
}

void EventSink::Stop()
{
    mHidden.Reset();
    if (!mFd) return;
    mFd.Reset();
    unlink(RunPath(kSocket).c_str());
}

void EventSink::Hide()
{
    unlink(RunPath(kSocket).c_str());
    mHidden = std::move(mFd);
}

std::vector<Bytes> EventSink::WaitForRaw(std::size_t count, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    std::vector<Bytes> records;
    while (true) {
        for (const UniqueFd *listener : {&mHidden, &mFd}) // first what came first
            while (const UniqueFd connection{accept4(listener->Get(), nullptr, nullptr, SOCK_CLOEXEC)})
                records.push_back(ReadToEnd(connection));
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (records.size() >= count || left.count() <= 0) return records;
        WaitForEvents(mFd.Get(), POLLIN, left);
    }
}

std::vector<EventRecord> EventSink::WaitFor(std::size_t count, std::chrono::milliseconds limit)
{
    return Decoded(WaitForRaw(count, limit));
}

std::vector<std::string> EventSink::WaitForTexts(std::size_t count, std::chrono::milliseconds limit)
{
    return Texts(WaitFor(count, limit));
}
