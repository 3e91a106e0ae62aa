// A listener to the journal that keeps the books of what it reads.
#ifndef TESTSUPPORT_JOURNALREADER_H
#define TESTSUPPORT_JOURNALREADER_H

#include "waitFor.h"

#include <journalLedger.h>
#include <poll.h>
#include <unistd.h>

// Connects in its constructor; throws Failure when nobody listens. One thread at a time.
class JournalReader {
public:
    // Reads until condition() holds; false when it does not for a long time, or when the journal ends
    // before.
    bool ReadUntil(const std::function<bool()> &condition)
    {
        for (char bytes[64 << 10];;) {
            while (!condition()) {
                const auto entry = stream.Take();
                if (!entry) break;
                ledger.Take(*entry);
                if (seen) seen(*entry);
            }
            if (condition()) return true;
            if (WaitForEvents(fd.Get(), POLLIN) == 0) return false;
            const ssize_t count = read(fd.Get(), bytes, sizeof bytes);
            if (count <= 0) return false;
            stream.Add({bytes, static_cast<std::size_t>(count)});
        }
    }
    bool ReadToTheEnd()
    {
        return ReadUntil([this] { return ledger.HasEnded(); });
    }

    UniqueFd fd = ConnectToJournal();
    JournalStream stream;
    JournalLedger ledger;
    std::function<void(const JournalEntry &)> seen; // may be null
};

#endif
