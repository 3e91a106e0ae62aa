#include "journalEntry.h"

#include "failure.h"
#include "runDirectory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

namespace {

struct Malformed {
    const char *what;
    std::size_t at;
};

// The words of each code, from 1 on.
constexpr std::array<std::string_view, 12> kFateWords{
    "no handler", "ignored",    "posted",         "gathered",       "counted",     "held back",
    "noted",      "unreadable", "look-up failed", "handler failed", "agent ended", "lost"};
constexpr std::array<std::string_view, 3> kOutcomeWords{"posted", "discarded", "still open"};
constexpr std::array<std::string_view, 8> kDeliveryWords{
    "delivered",           "waiting",   "abandoned",       "limited", "ID too long",
    "arguments too large", "no memory", "lost at the exit"};

const auto &WordsOf(JournalFate) { return kFateWords; }
const auto &WordsOf(JournalOutcome) { return kOutcomeWords; }
const auto &WordsOf(JournalDelivery) { return kDeliveryWords; }

std::string_view WordOf(auto code)
{
    const std::size_t index = static_cast<std::size_t>(code) - 1;
    return index < WordsOf(code).size() ? WordsOf(code)[index] : "?";
}

class Reader {
public:
    Reader(std::string_view bytes, std::size_t at) : mBytes(bytes), mAt(at) {}

    void operator()(auto &...fields) { (Take(fields), ...); }

    std::size_t At() const { return mAt; }

private:
    std::string_view TakeBytes(std::size_t count)
    {
        if (count > mBytes.size() - mAt) throw Malformed{"a field that ends behind its entry", mAt};
        mAt += count;
        return mBytes.substr(mAt - count, count);
    }
    template <class T>
    requires std::integral<T>
    void Take(T &value) { std::memcpy(&value, TakeBytes(sizeof value).data(), sizeof value); }
    template <class T>
    requires std::is_enum_v<T>
    void Take(T &code)
    {
        std::underlying_type_t<T> value{};
        Take(value);
        code = static_cast<T>(value);
        if (WordOf(code) == "?") throw Malformed{"a code that is none", mAt - sizeof value};
    }
    void Take(std::string_view &text)
    {
        std::uint16_t length = 0;
        Take(length);
        text = TakeBytes(length);
    }
    void Take(JournalBytes &record)
    {
        std::uint32_t length = 0;
        Take(length);
        record.bytes = TakeBytes(length);
    }
    template <class T> void Take(std::vector<T> &list)
    {
        std::uint16_t count = 0;
        Take(count);
        for (std::uint16_t i = 0; i < count; ++i) // an item may be missing: no room is made for all at once
            Take(list.emplace_back());
    }
    template <class T>
    requires requires { &T::template Fields<T, Reader &>; }
    void Take(T &item) { T::Fields(item, *this); }

    std::string_view mBytes;
    std::size_t mAt;
};

template <class... Entries>
void ReadBody(Reader &reader, std::uint16_t kind, std::variant<JournalUnknown, Entries...> *body,
              std::size_t end)
{
    const auto readAs = [&]<class Entry>(std::in_place_type_t<Entry>) {
        if (kind != static_cast<std::uint16_t>(Entry::kKind)) return false;
        Entry::Fields(body->template emplace<Entry>(), reader);
        if (reader.At() != end) throw Malformed{"bytes behind the last field", reader.At()};
        return true;
    };
    if (!(readAs(std::in_place_type<Entries>) || ...)) *body = JournalUnknown{kind};
}

} // namespace

std::size_t JournalEntry_Read(std::string_view bytes, JournalEntry *entry, std::string *error)
try {
    error->clear();
    std::uint32_t length = 0;
    if (bytes.size() < sizeof length) return 0;
    std::memcpy(&length, bytes.data(), sizeof length);
    if (length < kJournalHeaderBytes || length > kJournalEntryBytesMax)
        throw Malformed{"a length that no entry has", 0};
    if (bytes.size() < length) return 0;

    std::uint16_t kind = 0, zero = 0;
    Reader reader(bytes.substr(0, length), sizeof length);
    reader(kind, zero, entry->number, entry->microseconds);
    if (zero != 0) throw Malformed{"not zero", 6};
    ReadBody(reader, kind, &entry->body, length);
    return length;
} catch (const Malformed &malformed) {
    *error = fmt::format("byte {}: {}", malformed.at, malformed.what);
    return 0;
}

void JournalStream::Add(std::string_view bytes)
{
    mBytes.erase(0, mTaken);
    mForgotten += std::exchange(mTaken, 0);
    mBytes.append(bytes);
}

std::optional<JournalEntry> JournalStream::Take()
{
    JournalEntry entry;
    std::string error;
    if (!mError.empty()) return std::nullopt;
    const std::size_t length = JournalEntry_Read(std::string_view(mBytes).substr(mTaken), &entry, &error);
    if (!error.empty()) mError = fmt::format("entry at byte {}: {}", mForgotten + mTaken, error);
    if (length == 0) return std::nullopt;
    mTaken += length;
    return entry;
}

UniqueFd ConnectToJournal()
{
    const std::string path = RunDirectoryPath("keld-journal.sock");
    const sockaddr_un address = SocketAddress(path);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd && connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    if (errno == ENOENT || errno == ECONNREFUSED) throw Failure(kExitNoPeer, NoDaemonText());
    throw Failure(kExitFailed, fmt::format("{}: {}", path, std::strerror(errno)));
}

std::string_view JournalWord(JournalFate fate) { return WordOf(fate); }
std::string_view JournalWord(JournalOutcome outcome) { return WordOf(outcome); }
std::string_view JournalWord(JournalDelivery state) { return WordOf(state); }

std::optional<JournalFate> JournalFateOf(std::string_view word)
{
    const auto found = std::ranges::find(kFateWords, word);
    if (found == kFateWords.end()) return std::nullopt;
    return static_cast<JournalFate>(found - kFateWords.begin() + 1);
}
