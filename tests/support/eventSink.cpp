#include "eventSink.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <kltlibs/rundir.h>
#include <poll.h>
#include <stdexcept>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace {

using Bytes = std::vector<std::byte>;

sockaddr_un Address()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (KltRunDir_Path("carad-pling.sock", address.sun_path, sizeof address.sun_path) != 0)
        throw std::runtime_error("no run directory");
    return address;
}

// One connection's bytes to its end.
Bytes ReadToEnd(int fd)
{
    Bytes bytes;
    std::byte piece[4096];
    while (true) {
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(kWaitLimit).count())) != 1) {
            ADD_FAILURE() << "a sender keeps its connection open without sending";
            return bytes;
        }
        const ssize_t got = read(fd, piece, sizeof piece);
        if (got <= 0) return bytes;
        bytes.insert(bytes.end(), piece, piece + got);
    }
}

std::vector<EventRecord> Decoded(const std::vector<Bytes> &records)
{
    std::vector<EventRecord> events;
    for (const Bytes &record : records) {
        EventRecord event;
        std::string error;
        if (EventRecord_Decode(record, &event, &error) == 0)
            events.push_back(std::move(event));
        else
            ADD_FAILURE() << "not an event record: " << error;
    }
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
        text += separator;
        text += argument.ToText();
        separator = ", ";
    }
    return text + ")";
}

void EventSink::Start(int backlog)
{
    if (mFd >= 0) return;
    const sockaddr_un address = Address();
    unlink(address.sun_path);
    mFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(mFd, backlog) != 0)
        throw std::system_error(errno, std::generic_category(), address.sun_path);
}

void EventSink::Stop()
{
    if (mFd < 0) return;
    close(mFd);
    mFd = -1;
    unlink(Address().sun_path);
}

std::vector<Bytes> EventSink::DrainRaw()
{
    std::vector<Bytes> records;
    for (int fd; (fd = accept4(mFd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(fd))
        records.push_back(ReadToEnd(fd));
    return records;
}

std::vector<EventRecord> EventSink::Drain() { return Decoded(DrainRaw()); }

std::vector<std::string> EventSink::DrainTexts() { return Texts(Drain()); }

std::vector<Bytes> EventSink::WaitForRaw(std::size_t count, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    std::vector<Bytes> records;
    while (true) {
        for (Bytes &record : DrainRaw())
            records.push_back(std::move(record));
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (records.size() >= count || left.count() <= 0) return records;
        pollfd readable{mFd, POLLIN, 0};
        poll(&readable, 1, static_cast<int>(left.count()));
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
