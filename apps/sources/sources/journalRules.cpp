#include "journalRules.h"

#include <charconv>
#include <fmt/format.h>

namespace {

// clang-format off
enum { kDumped, kDumpFailed, kNoLease, kLogsLost, kLocked };
constexpr Row kRows[] = {
    {"kel.uw.core.dumped",     "%s %d %s", "the core dump handler stored a core file of a program"},
    {"kel.uw.core.dumpFailed", "%s %d %s", "the core dump handler saw a crash and stored none"},
    {"kel.user.dhclient.lease.none",         "%s", "the DHCP client got no offer on an interface"},
    {"kel.user.hsyslogd.storage.failure",    "%s", "the syslog service cannot write one of its files; its directory"},
    {"kel.external.warning", kExternalFormat, "an account was locked after failed logins; how many, and for how long, is not said"},
};
// clang-format on

constexpr const char *kCoreDumpMessage = "fc2e22bc6ee647b6b90729ab34a250b1";
constexpr const char *kPrivateAuthentication = "10"; // the syslog facility
constexpr std::size_t kClientsMax = 64;              // DHCP clients at a time

// What stands between two texts; nothing when they do not stand there.
std::optional<std::string> Between(const std::string &text, std::string_view before, std::string_view after)
{
    if (!text.starts_with(before)) return std::nullopt;
    const auto end = text.find(after, before.size());
    if (end == std::string::npos || end == before.size()) return std::nullopt;
    return text.substr(before.size(), end - before.size());
}

} // namespace

std::span<const Row> JournalRules::Rows() { return kRows; }

std::vector<std::string> JournalRules::Matches()
{
    return {std::string("MESSAGE_ID=") + kCoreDumpMessage,
            std::string("SYSLOG_FACILITY=") + kPrivateAuthentication, "_COMM=dhclient", "_COMM=rsyslogd"};
}

void JournalRules::Take(const JournalEntry &entry)
{
    const auto field = [&](const char *name) { return entry(name).value_or(""); };
    if (field("MESSAGE_ID") == kCoreDumpMessage) {
        if (field("_SYSTEMD_UNIT").starts_with("systemd-coredump@")) TakeCrash(entry);
        return;
    }
    if (field("_UID") != "0") return;
    const std::string message = field("MESSAGE"), program = field("_COMM");
    if (field("SYSLOG_FACILITY") == kPrivateAuthentication) TakeLock(message);
    if (program == "dhclient") TakeDhcp(field("_PID"), message);
    if (program == "rsyslogd") TakeLogFile(message);
}

void JournalRules::TakeCrash(const JournalEntry &entry)
{
    std::string program = entry("COREDUMP_EXE").value_or("");
    program = program.substr(program.rfind('/') + 1);
    if (program.empty()) program = entry("COREDUMP_COMM").value_or("unknown");
    const std::string number = entry("COREDUMP_PID").value_or("");
    std::int32_t process = 0;
    std::from_chars(number.data(), number.data() + number.size(), process);
    if (const auto file = entry("COREDUMP_FILENAME"))
        mEmit(kRows[kDumped], {program, process, *file});
    else if (!entry("COREDUMP")) // the core itself, where the journal is the store
        mEmit(kRows[kDumpFailed], {program, process, std::string("no core file was stored")});
}

void JournalRules::TakeLock(const std::string &message)
{
    if (!message.starts_with("pam_faillock(")) return;
    const auto colon = message.find(": ");
    if (colon == std::string::npos) return;
    const auto user = Between(message.substr(colon + 2), "Consecutive login failures for user ",
                              " account temporarily locked");
    if (!user) return;
    const auto text = fmt::format("account {} was locked after consecutive login failures", *user);
    mEmit(kRows[kLocked], External("accounts", text));
}

void JournalRules::TakeDhcp(const std::string &process, const std::string &message)
{
    if (const auto interface = Between(message, "DHCPDISCOVER on ", " ")) {
        if (mAskedOn.size() >= kClientsMax) mAskedOn.clear();
        mAskedOn[process] = *interface;
    } else if (message.starts_with("No DHCPOFFERS received")) {
        if (const auto asked = mAskedOn.find(process); asked != mAskedOn.end()) {
            mEmit(kRows[kNoLease], {asked->second});
            mAskedOn.erase(asked);
        }
    }
}

void JournalRules::TakeLogFile(const std::string &message)
{
    const auto file = Between(message, "file '", "'");
    if (!file || message.find("write error") == std::string::npos) return;
    mEmit(kRows[kLogsLost], {file->substr(0, file->rfind('/'))});
}
