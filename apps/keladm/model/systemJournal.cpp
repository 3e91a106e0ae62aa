#include "systemJournal.h"

#include "console.h"
#include "eventWords.h"
#include "failure.h"
#include "runDirectory.h"
#include "text.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr std::size_t kValueBytesMax = 16384;

// syslog's: a problem is a warning, everything else a notice.
const char *PriorityOf(const std::string &eventClass) { return eventClass == "problem" ? "4" : "5"; }

// With its length in front, so that it may hold anything.
void AddField(std::string *entry, const std::string &name, std::string_view value)
{
    value = value.substr(0, kValueBytesMax);
    *entry += name + '\n';
    for (std::size_t byte = 0, left = value.size(); byte < 8; ++byte, left >>= 8)
        *entry += static_cast<char>(left & 0xFF);
    *entry += value;
    *entry += '\n';
}

// "portGroups" as KELD_ARG_PORT_GROUPS: the journal takes no other names.
std::string FieldName(const std::string &argument)
{
    std::string name = "KELD_ARG_";
    for (const char c : argument) {
        const auto letter = static_cast<unsigned char>(c);
        if (std::isupper(letter) != 0) name += '_';
        name += std::isalnum(letter) != 0 ? static_cast<char>(std::toupper(letter)) : '_';
    }
    return name.substr(0, 64);
}

} // namespace

std::string JournalEntryOf(const EventRecord &event, const std::optional<Catalogue> &catalogue)
{
    const CatalogueEvent *known = catalogue ? catalogue->Find(event.typeId) : nullptr;
    const std::string eventClass = EventClassOf(event.typeId);
    std::string entry, message = event.typeId;
    if (known != nullptr) message = EventRecord_Render(event, known->text);
    AddField(&entry, "MESSAGE", message);
    AddField(&entry, "PRIORITY", PriorityOf(eventClass));
    AddField(&entry, "SYSLOG_IDENTIFIER", "keld-event");
    AddField(&entry, "KELD_TYPE", event.typeId);
    AddField(&entry, "KELD_CLASS", eventClass);
    AddField(&entry, "KELD_HOST", event.hostIdentity);
    AddField(&entry, "KELD_TIME", UtcTime(event.timestamp));
    for (std::size_t i = 0; i < event.arguments.size(); ++i) {
        const bool isNamed = known != nullptr && i < known->arguments.size();
        const std::string name = isNamed ? known->arguments[i].name : std::to_string(i);
        const std::string value = event.arguments[i].ToText();
        AddField(&entry, FieldName(name), value);
        if (isNamed && name == known->object) AddField(&entry, "KELD_OBJECT", value);
    }
    return entry;
}

SystemJournal::SystemJournal(const std::string &socket) : mPath(socket) { Connect(); }

void SystemJournal::Connect()
{
    const sockaddr_un address = SocketAddress(mPath);
    mFd.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int bytes = 1024 * 1024;
    if (mFd) setsockopt(mFd.Get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    if (!mFd || connect(mFd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw Failure(kExitFailed, fmt::format("no journal at {}: {}", mPath, std::strerror(errno)));
}

void SystemJournal::Write(const EventRecord &event, const std::optional<Catalogue> &catalogue)
{
    const std::string entry = JournalEntryOf(event, catalogue);
    const auto sent = [&] { return send(mFd.Get(), entry.data(), entry.size(), MSG_NOSIGNAL) >= 0; };
    try {
        if (sent()) return;
        Connect(); // the journal was restarted
        if (sent()) return;
        Tell("receive", fmt::format("the journal did not take {}: {}", event.typeId, std::strerror(errno)));
    } catch (const Failure &failure) {
        Tell("receive", fmt::format("the journal did not take {}: {}", event.typeId, failure.what()));
    }
}
