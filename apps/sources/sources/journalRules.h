// Which entries of the journal become which observations.
#ifndef SOURCES_JOURNALRULES_H
#define SOURCES_JOURNALRULES_H

#include "row.h"

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

// One field of an entry; nothing when it does not have it.
using JournalEntry = std::function<std::optional<std::string>(const char *field)>;

class JournalRules {
public:
    explicit JournalRules(Emit emit) : mEmit(std::move(emit)) {}
    static std::span<const Row> Rows();

    // "FIELD=value": no other entries than those with one of these are of interest.
    static std::vector<std::string> Matches();

    void Take(const JournalEntry &entry);

private:
    void TakeCrash(const JournalEntry &entry);
    void TakeLock(const std::string &message);
    void TakeDhcp(const std::string &process, const std::string &message);
    void TakeLogFile(const std::string &message);

    const Emit mEmit;
    std::map<std::string, std::string> mAskedOn; // interface by the DHCP client's process
};

#endif
