// The host's journal, as a place for events where no management agent is.
#ifndef KELADM_SYSTEMJOURNAL_H
#define KELADM_SYSTEMJOURNAL_H

#include "catalogue.h"
#include "eventRecord.h"

#include <kltlibs/uniquefd.h>
#include <optional>
#include <string>

// One entry for each event, through the journal's own socket, in its native form: MESSAGE, PRIORITY by the
// class, KELD_TYPE, KELD_CLASS, KELD_OBJECT, KELD_HOST, KELD_TIME, and KELD_ARG_... for each argument, by
// its name in the catalogue or by its place. Values are cut at 16 KiB.
class SystemJournal {
public:
    static constexpr const char *kSocket = "/run/systemd/journal/socket";

    // Throws Failure when nobody listens at socket.
    explicit SystemJournal(const std::string &socket);

    // Waits while the journal is busy. An entry that it does not take is named on standard error.
    void Write(const EventRecord &event, const std::optional<Catalogue> &catalogue);

private:
    void Connect(); // throws Failure

    const std::string mPath;
    UniqueFd mFd;
};

// The entry's bytes.
std::string JournalEntryOf(const EventRecord &event, const std::optional<Catalogue> &catalogue);

#endif
