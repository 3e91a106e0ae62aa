// What other services write to the journal: crashes, locked accounts, DHCP without a lease, logs that
// cannot be stored.
//
// Read from its end on. An entry counts only when its writer is who it says: the fields that begin with "_"
// are the journal's own, the others anybody can write.

#include "source.h"

#include "journalRules.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <systemd/sd-journal.h>

namespace {

// Entries for one turn of the loop, so that a storm in the journal keeps nothing else waiting for long.
constexpr int kEntriesPerTurn = 256;

class JournalSource : public Source {
public:
    explicit JournalSource(const Host &host);
    ~JournalSource() override { sd_journal_close(mJournal); }

private:
    void Read();

    JournalRules mRules;
    sd_journal *mJournal = nullptr;
    EventLoop::WatchPtr mWatch, mAgain;
};

JournalSource::JournalSource(const Host &host)
    : mRules(host.emit), mAgain(host.loop.OnTimer([this] { Read(); }))
{
    const std::string &folder = host.options.journal;
    const int opened = folder.empty()
                           ? sd_journal_open(&mJournal, SD_JOURNAL_LOCAL_ONLY | SD_JOURNAL_SYSTEM)
                           : sd_journal_open_directory(&mJournal, folder.c_str(), 0);
    const auto check = [&](int result) {
        if (result >= 0) return;
        sd_journal_close(mJournal);
        throw CannotRun(fmt::format("the journal cannot be read: {}", std::strerror(-result)));
    };
    check(opened);
    for (const std::string &match : JournalRules::Matches()) {
        check(sd_journal_add_match(mJournal, match.c_str(), match.size()));
        check(sd_journal_add_disjunction(mJournal));
    }
    check(sd_journal_get_fd(mJournal));
    check(sd_journal_seek_tail(mJournal));
    const int old = sd_journal_previous(mJournal); // the last one of old: what comes behind it is new
    check(old == 0 ? sd_journal_seek_head(mJournal) : old);
    mWatch = host.loop.OnEvents(sd_journal_get_fd(mJournal),
                                static_cast<std::uint32_t>(sd_journal_get_events(mJournal)),
                                [this](std::uint32_t) {
                                    (void)sd_journal_process(mJournal);
                                    Read();
                                });
}

void JournalSource::Read()
{
    for (int entries = 0; sd_journal_next(mJournal) > 0; ++entries) {
        if (entries == kEntriesPerTurn) {
            (void)sd_journal_previous(mJournal);
            return mAgain->Arm(std::chrono::milliseconds(1));
        }
        mRules.Take([this](const char *field) -> std::optional<std::string> {
            const void *data = nullptr;
            std::size_t length = 0;
            if (sd_journal_get_data(mJournal, field, &data, &length) < 0) return std::nullopt;
            const std::string_view text(static_cast<const char *>(data), length);
            return std::string(text.substr(text.find('=') + 1));
        });
    }
}

} // namespace

const SourceKind kJournalSource{
    "journal",
    "to read the system's journal",
    "entries of the core dump handler, of login, DHCP and log services",
    JournalRules::Rows(),
    [](const Host &host) -> std::unique_ptr<Source> { return std::make_unique<JournalSource>(host); },
};
