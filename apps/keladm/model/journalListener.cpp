#include "journalListener.h"

#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <iterator>
#include <sys/socket.h>

JournalListener::JournalListener(Clock::time_point until)
{
    pollfd fds[] = {Watch()};
    PollUntil(fds, until);
    if (fds[0].revents == 0) throw Failure(kExitNoPeer, "the daemon does not begin its journal");
}

std::vector<std::string> JournalListener::TakeFates()
{
    std::vector<std::string> fates;
    auto add = [&fates](std::string_view before, std::string_view word, std::string_view text) {
        fates.push_back(fmt::format("{}{}{}{}", before, word, text.empty() ? "" : ": ", text));
    };
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t count = recv(mJournal.Get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) return fates;
        mEnded = count <= 0;
        if (mEnded) return fates;
        mStream.Add({buffer, static_cast<size_t>(count)});
        while (auto entry = mStream.Take()) {
            mLedger.Take(*entry);
            if (auto fate = std::get_if<JournalFateEntry>(&entry->body))
                add("", JournalWord(fate->fate), fate->text);
            else if (auto outcome = std::get_if<JournalOutcomeEntry>(&entry->body))
                add("then ", JournalWord(outcome->outcome), outcome->text);
        }
        if (!mStream.Error().empty()) throw Failure(kExitFailed, "no journal: " + mStream.Error());
    }
}

void JournalListener::CheckBooks() const
{
    std::vector<std::string> wrong = mLedger.Faults();
    std::ranges::move(mLedger.Open(), std::back_inserter(wrong));
    if (!wrong.empty())
        throw Failure(kExitFailed, fmt::format("the journal is not even: {}", fmt::join(wrong, "; ")));
}
