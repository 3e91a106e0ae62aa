// One entry of the journal, read; kltlibs/journalrecord.h tells its layout.
#ifndef KELADM_JOURNALENTRY_H
#define KELADM_JOURNALENTRY_H

#include <kltlibs/journalrecord.h>
#include <kltlibs/uniquefd.h>

#include <optional>
#include <string>
#include <variant>

struct JournalUnknown { // of a kind that came later than this reader
    std::uint16_t kind = 0;
};

struct JournalEntry {
    std::uint64_t number = 0;
    std::uint64_t microseconds = 0; // since the epoch
    std::variant<JournalUnknown, JournalHello, JournalBegin, JournalIn, JournalDropped, JournalFateEntry,
                 JournalOutcomeEntry, JournalOut, JournalDeliveryEntry, JournalLost, JournalGap, JournalEnd>
        body;
};

// The entries of a stream that comes in pieces of any size. Once broken, it stays so.
class JournalStream {
public:
    // What has come.
    void Add(std::string_view bytes);

    // Takes the next whole entry: none when there is no more to take, or when the stream is broken. What
    // the entry refers to is good until the next call of Add.
    std::optional<JournalEntry> Take();

    // What is wrong, and at which byte of the stream; empty as long as nothing is.
    const std::string &Error() const { return mError; }

    // Whether the stream ends between two entries.
    bool AtBoundary() const { return mTaken == mBytes.size(); }

private:
    std::string mBytes;
    std::size_t mTaken = 0;       // bytes of mBytes
    std::uint64_t mForgotten = 0; // bytes that came before mBytes
    std::string mError;
};

// Reads one entry off the front of bytes: the number of bytes that it takes; 0 when more are needed, or
// when it is none: then *error says what is wrong, and at which byte.
//
// Strict: codes in their range, texts and lists that end where they say, nothing behind the last field.
// Records are not looked into: Kel_MakeKel and EventRecord_Decode do that.
std::size_t JournalEntry_Read(std::string_view bytes, JournalEntry *entry, std::string *error);

// A connection to the journal of the run directory. Throws Failure.
UniqueFd ConnectToJournal();

// "held back", "posted"; "?" for a code that is none.
std::string_view JournalWord(JournalFate fate);
std::string_view JournalWord(JournalOutcome outcome);
std::string_view JournalWord(JournalDelivery state);

// The fate of that word; none for another one.
std::optional<JournalFate> JournalFateOf(std::string_view word);

#endif
