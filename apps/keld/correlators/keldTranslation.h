// Observations and events as rows of plain data, proved while compiling.
//
// A Translation is one observation that becomes one event with nothing in between: its ID, the
// arguments read, the marked text. Its handler is instantiated from the table. What needs state or a
// decision is a KeldObservation (ID, arguments, a handler of its own) that posts EventTexts through
// KeldPost. A KeldDomain holds all rows of a correlator: the correlator's table is built from it, and
// so is the catalogue, so that neither can know what the other does not.
//
// A row that could not work does not compile: a malformed marker, a type ID without a class, a text
// that does not fit its arguments, a failure message that does not fit what it is given.
#ifndef KELD_TRANSLATION_H
#define KELD_TRANSLATION_H

#include "keldCorrelator.h"
#include "keldLog.h"
#include "keldPling.h"
#include "keldUtil.h"

#include <kltlibs/kel.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

// Never defined: reaching one of these while a row is built is the compile error.
void RowError_UnknownConversion();
void RowError_TooManyArguments();
void RowError_MarkerMalformed();
void RowError_TypeIdHasNoClass();
void RowError_TextDoesNotFitArguments();
void RowError_NamesDoNotFitArguments();
void RowError_FailureMessageMalformed();

inline constexpr std::size_t kKeldArgumentsMax = 12;

// The conversions of a format, one letter each: s text, v volume UUID text, c character, d/u 32 bits,
// h/H 16, b/B 8, D/U 64 (signed and unsigned).
struct KeldShape {
    std::array<char, kKeldArgumentsMax> at{};
    std::size_t count = 0;

    // What is read has %p and %U for a text, what is shown has %s.
    enum class Of { Read, Shown };

    consteval KeldShape(Of kind, std::string_view text)
    {
        std::size_t i = 0;
        const auto take = [&](std::string_view set, std::size_t most) {
            const std::size_t start = i;
            while (i < text.size() && i - start < most && set.find(text[i]) != set.npos)
                ++i;
            return i - start;
        };
        constexpr std::string_view kDigits = "0123456789";
        while (i < text.size()) {
            if (text[i++] != '%' || take("%", 1) == 1) continue;
            take(" #+-0", 1);
            take(kDigits, text.npos);
            if (take(".", 1) == 1) take(kDigits, text.npos);
            const std::size_t shorts = take("h", 2);
            const std::size_t longs = shorts == 0 ? take("l", 2) : 0;
            if (i == text.size()) RowError_UnknownConversion();
            if (count == at.size()) RowError_TooManyArguments();
            at[count++] = Letter(kind, text[i++], longs, shorts);
        }
    }

    // How many conversions a format has that was proved before.
    static constexpr std::size_t CountConversions(std::string_view text)
    {
        std::size_t found = 0;
        for (std::size_t i = 0; i + 1 < text.size(); ++i) {
            if (text[i] != '%') continue;
            if (text[++i] != '%') ++found;
        }
        return found;
    }

    // %#x may show what %d read: only the width and text-or-number must agree.
    consteval bool Fits(const KeldShape &given) const
    {
        for (std::size_t i = 0; i < count && count == given.count; ++i)
            if (Width(at[i]) != Width(given.at[i])) return false;
        return count == given.count;
    }

    template <class... Ts> static consteval KeldShape OfTypes()
    {
        KeldShape shape(Of::Shown, "");
        ((shape.at[shape.count++] = LetterOf<Ts>()), ...);
        return shape;
    }

    static consteval char Letter(Of kind, char c, std::size_t longs, std::size_t shorts)
    {
        const bool plain = longs == 0 && shorts == 0;
        if (c == (kind == Of::Read ? 'p' : 's') && plain) return 's';
        if (c == 'U' && kind == Of::Read && plain) return 'v';
        if (c == 'c' && plain) return 'c';
        if (c == 'd' || c == 'i') return longs ? 'D' : shorts == 2 ? 'b' : shorts ? 'h' : 'd';
        if (c == 'u' || c == 'x' || c == 'X' || c == 'o')
            return longs ? 'U' : shorts == 2 ? 'B' : shorts ? 'H' : 'u';
        RowError_UnknownConversion();
        return 0;
    }
    static consteval int Width(char c) { return c == 's' || c == 'v' ? 0 : c == 'D' || c == 'U' ? 64 : 32; }
    template <class T> static consteval char LetterOf()
    {
        if (std::is_convertible_v<T, const char *>) return 's';
        return sizeof(T) == 8 ? std::is_signed_v<T> ? 'D' : 'U' : std::is_signed_v<T> ? 'd' : 'u';
    }
};

using KeldNames = std::array<std::string_view, kKeldArgumentsMax>;

// What a handler reads: how, with which conversions, and what each value is called.
//
//     Args("device:%p, usual:%u")     in one call with the conversions as a format
//     Indexed("count:%d, path:%p")    one argument at a time, by position
//     ByMessage("... %s ... %lu", "path, pages")   by the producer's own message text
//
// The pseudo-conversion %U is a volume UUID: nine numbers read, one text shown.
struct KeldArguments {
    enum class By { Format, Index, Message };

    By by;
    std::array<char, 160> format{}; // what the library is asked for
    const char *message = nullptr;  // By::Message
    KeldShape shape;
    KeldNames names{};
    std::size_t nullIndex = kKeldArgumentsMax;
    const char *nullText = nullptr; // what a null text at nullIndex becomes

    // A null text counts as a failed read, unless the row says what it becomes.
    consteval KeldArguments NullAs(std::size_t index, const char *text) const
    {
        KeldArguments changed = *this;
        changed.nullIndex = index;
        changed.nullText = text;
        return changed;
    }

    consteval KeldArguments(By how, std::string_view list) : by(how), shape(KeldShape::Of::Read, list)
    {
        std::size_t length = 0, argument = 0, start = 0;
        const auto append = [&](std::string_view text) {
            if (length + text.size() + 1 > format.size()) RowError_TooManyArguments();
            for (const char c : text)
                format[length++] = c;
        };
        for (std::size_t i = 0; i < list.size(); ++i) {
            if (list[i] != '%') continue;
            const std::size_t colon = list.find_first_not_of(", ", start);
            if (i == 0 || list[i - 1] != ':' || colon + 1 >= i) RowError_NamesDoNotFitArguments();
            names[argument++] = list.substr(colon, i - 1 - colon);
            const std::size_t end = std::min(list.find_first_of(", ", i), list.size());
            if (length) append(" ");
            append(list.substr(i, end - i) == "%U" ? "%08x-%08x-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx"
                                                   : list.substr(i, end - i));
            start = i = end;
        }
    }
    consteval KeldArguments(const char *text, std::string_view nameList)
        : by(By::Message), message(text), shape(KeldShape::Of::Shown, text),
          names(SplitNames(nameList, shape.count))
    {
    }

    static consteval KeldNames SplitNames(std::string_view list, std::size_t expected)
    {
        KeldNames split{};
        std::size_t count = 0;
        while (!list.empty()) {
            if (count == split.size()) RowError_TooManyArguments();
            const std::size_t end = std::min(list.find(", "), list.size());
            split[count++] = list.substr(0, end);
            list.remove_prefix(std::min(end + 2, list.size()));
        }
        if (count != expected) RowError_NamesDoNotFitArguments();
        return split;
    }
};
consteval KeldArguments Args(std::string_view list) { return {KeldArguments::By::Format, list}; }
consteval KeldArguments Indexed(std::string_view list) { return {KeldArguments::By::Index, list}; }
consteval KeldArguments ByMessage(const char *text, std::string_view names) { return {text, names}; }

// Which problems an event ends, and the arguments by which the two are matched.
struct KeldPairing {
    const char *clears = nullptr; // event type IDs, separated by ", "
    const char *on = nullptr;     // names of arguments of both, likewise; null: by type alone
};

// A marked text. Its class is read from its own type ID, so the two cannot disagree.
struct EventText {
    const char *format;
    KeldEventClass cls = KeldEventClass::Problem;
    KeldShape shape;
    KeldNames names{}; // of the placeholders
    KeldPairing pairing{};

    // Within a row, which knows the names.
    consteval EventText(const char *marked) : format(marked), shape(KeldShape::Of::Shown, TextOf(marked))
    {
        const std::string_view text = marked;
        if (text.substr(8).starts_with("nox.audit."))
            cls = KeldEventClass::Audit;
        else if (text.substr(8).starts_with("nox.clear."))
            cls = KeldEventClass::Clear;
        else if (!text.substr(8).starts_with("nox.problem."))
            RowError_TypeIdHasNoClass();
    }
    // On its own: names of the placeholders, in order, separated by ", ".
    consteval EventText(const char *marked, std::string_view nameList, KeldPairing pair = {})
        : EventText(marked)
    {
        names = KeldArguments::SplitNames(nameList, shape.count);
        pairing = pair;
    }

    static consteval std::string_view TextOf(std::string_view marked)
    {
        if (!marked.starts_with("@&!*@*@(") || marked.find(')') == marked.npos) RowError_MarkerMalformed();
        return marked.substr(marked.find(')') + 1);
    }
    constexpr std::string_view TypeId() const
    {
        const std::string_view text = format;
        return text.substr(8, text.find(')') - 8);
    }
    constexpr std::string_view Text() const
    {
        const std::string_view text = format;
        return text.substr(text.find(')') + 1);
    }
};

// What only some rows need.
struct KeldRowOptions {
    const char *shows = nullptr; // which argument each placeholder shows: "0 1 0 2"; null: in order
    KeldPairing pairing{};
    // Logged when the read fails: one message for a read in one call, given the observation ID and
    // the status; one for each indexed argument, given the status, or the first argument and it.
    std::array<const char *, 3> failed{};
    bool unreadToo = false; // posted also when the read fails, with null texts and zeros
};

struct Translation {
    const char *id;
    KeldArguments arguments;
    EventText event;
    KeldRowOptions options;
    std::array<std::size_t, kKeldArgumentsMax> shows{};

    consteval Translation(const char *kelId, KeldArguments read, EventText text, KeldRowOptions more = {})
        : id(kelId), arguments(read), event(text), options(more)
    {
        KeldShape shown = read.shape;
        if (more.shows != nullptr) {
            shown.count = 0;
            for (const char c : std::string_view(more.shows)) {
                if (c == ' ') continue;
                const auto index = static_cast<std::size_t>(c - '0');
                if (c < '0' || c > '9' || index >= read.shape.count || shown.count == shows.size())
                    RowError_TextDoesNotFitArguments();
                shows[shown.count] = index;
                shown.at[shown.count++] = read.shape.at[index];
            }
        } else {
            for (std::size_t i = 0; i < shown.count; ++i)
                shows[i] = i;
        }
        if (!text.shape.Fits(shown)) RowError_TextDoesNotFitArguments();
        for (std::size_t i = 0; i < shown.count; ++i)
            event.names[i] = read.names[shows[i]];
        event.pairing = more.pairing;
        for (std::size_t i = 0; i < more.failed.size(); ++i) {
            if (more.failed[i] == nullptr) continue;
            const KeldShape shape(KeldShape::Of::Shown, more.failed[i]);
            const bool one = shape.count == 1 && shape.at[0] == 'd';
            const bool two = shape.count == 2 && shape.at[0] == 's' && shape.at[1] == 'd';
            const bool fits = read.by != KeldArguments::By::Index ? two && i == 0 : one || (two && i > 0);
            if (!fits) RowError_FailureMessageMalformed();
        }
    }
};

// A volume UUID as it travels: nine numbers.
struct KeldVolumeUuid {
    std::uint32_t first = 0, second = 0;
    std::uint16_t third = 0;
    std::array<std::uint8_t, 6> node{};
    std::array<char, 36> text{};

    const char *Format()
    {
        std::snprintf(text.data(), text.size(), "%08x-%08x-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx",
                      first, second, third, node[0], node[1], node[2], node[3], node[4], node[5]);
        return text.data();
    }
};

template <char> struct KeldArgOf;
template <> struct KeldArgOf<'s'> {
    using Type = const char *;
};
template <> struct KeldArgOf<'v'> {
    using Type = KeldVolumeUuid;
};
template <> struct KeldArgOf<'c'> {
    using Type = char;
};
template <> struct KeldArgOf<'d'> {
    using Type = std::int32_t;
};
template <> struct KeldArgOf<'u'> {
    using Type = std::uint32_t;
};
template <> struct KeldArgOf<'h'> {
    using Type = std::int16_t;
};
template <> struct KeldArgOf<'H'> {
    using Type = std::uint16_t;
};
template <> struct KeldArgOf<'b'> {
    using Type = std::int8_t;
};
template <> struct KeldArgOf<'B'> {
    using Type = std::uint8_t;
};
template <> struct KeldArgOf<'D'> {
    using Type = std::int64_t;
};
template <> struct KeldArgOf<'U'> {
    using Type = std::uint64_t;
};

namespace KeldRow {

inline int ReadAt(const Kel *kel, int index, const char **out) { return Kel_GetStringArg(kel, index, out); }
inline int ReadAt(const Kel *kel, int index, std::int32_t *out) { return Kel_GetIntArg(kel, index, out); }
inline int ReadAt(const Kel *kel, int index, std::uint32_t *out)
{
    return Kel_GetIntArg(kel, index, reinterpret_cast<std::int32_t *>(out));
}

template <class T> auto Destinations(T *value)
{
    if constexpr (std::is_same_v<T, KeldVolumeUuid>)
        return std::tuple(&value->first, &value->second, &value->third, &value->node[0], &value->node[1],
                          &value->node[2], &value->node[3], &value->node[4], &value->node[5]);
    else
        return std::tuple(value);
}

// False for a null text of which the row does not say what it becomes.
template <class T> bool Settle(const KeldArguments &, std::size_t, T *) { return true; }
inline bool Settle(const KeldArguments &arguments, std::size_t at, const char **text)
{
    if (*text == nullptr && at == arguments.nullIndex) *text = arguments.nullText;
    return *text != nullptr;
}

// Reads every argument; 0, or the status of the read that failed, whose position goes to *failedAt.
template <KeldArguments::By kBy, class... Ts>
int Read(const Kel *kel, const KeldArguments &arguments, std::size_t *failedAt, Ts *...values)
{
    int status = 0;
    *failedAt = 0;
    [[maybe_unused]] std::size_t at = 0;
    if constexpr (sizeof...(Ts) == 0) {
        return 0;
    } else if constexpr (kBy == KeldArguments::By::Index) {
        [[maybe_unused]] const auto readOne = [&](auto *value) {
            *failedAt = at;
            status = ReadAt(kel, static_cast<int>(at), value);
            if (status == 0 && !Settle(arguments, at, value)) status = EINVAL;
            ++at;
            return status == 0;
        };
        (void)(readOne(values) && ...);
        return status;
    } else {
        status = std::apply(
            [&](auto *...destinations) {
                if constexpr (kBy == KeldArguments::By::Format)
                    return Kel_GetArgs(kel, 0, arguments.format.data(), destinations...);
                else
                    return KeldGetArgsByFormat(kel, arguments.message, destinations...);
            },
            std::tuple_cat(Destinations(values)...));
        if (status != 0) return status;
        return (Settle(arguments, at++, values) && ...) ? 0 : EINVAL;
    }
}

inline const char *Shown(const char *value) { return value; }
inline const char *Shown(KeldVolumeUuid &value) { return value.Format(); }
template <class T> T Shown(T value) { return value; }

// "Proved when the row was built": the formats below are the row's, not literals at the call.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

void LogFailedRead(const Translation &row, const Kel *kel, std::size_t failedAt, int status);

// One body for each argument signature; all rows of a signature share it.
template <KeldArguments::By kBy, class... Ts, std::size_t... kShown>
bool ReadAndPost(Kel *kel, const Translation &row, std::index_sequence<kShown...>)
{
    std::tuple<Ts...> values{};
    std::size_t failedAt = 0;
    const int status = std::apply(
        [&](auto &...value) { return Read<kBy>(kel, row.arguments, &failedAt, &value...); }, values);
    if (status != 0) {
        LogFailedRead(row, kel, failedAt, status);
        if (!row.options.unreadToo) return false;
    }
    KeldPostEvent(0, row.event.cls, row.event.format, Shown(std::get<kShown>(values))...);
    return true;
}

// One row: a tail call into the body of its signature. False when the read failed.
template <const auto &kRows, std::size_t kIndex> bool Translate(Kel *kel)
{
    return [kel]<std::size_t... kArg, std::size_t... kPlace>(std::index_sequence<kArg...>,
                                                             std::index_sequence<kPlace...>)
    {
        return ReadAndPost<kRows[kIndex].arguments.by,
                           typename KeldArgOf<kRows[kIndex].arguments.shape.at[kArg]>::Type...>(
            kel, kRows[kIndex], std::index_sequence<kRows[kIndex].shows[kPlace]...>{});
    }
    (std::make_index_sequence<kRows[kIndex].arguments.shape.count>{},
     std::make_index_sequence<kRows[kIndex].event.shape.count>{});
}

// The plain handler of one row.
template <const auto &kRows, std::size_t kIndex> void Handle(Kel *kel) { Translate<kRows, kIndex>(kel); }

template <const auto &kRows>
inline constexpr auto kHandlers = []<std::size_t... kIndex>(std::index_sequence<kIndex...>)
{
    return std::array<KeldHandler, sizeof...(kIndex)>{&Handle<kRows, kIndex>...};
}
(std::make_index_sequence<std::size(kRows)>{});

} // namespace KeldRow

// Reads what arguments says into destinations whose types are proved against it: 0, or the status.
//
//     static constexpr KeldArguments kPathState = Indexed("path:%p, previousState:%p");
//     if (KeldRead<kPathState>(kel, &path, &previousState) != 0) return;
template <const KeldArguments &kArguments, class... Ts> int KeldRead(const Kel *kel, Ts *...destinations)
{
    static_assert(sizeof...(Ts) == kArguments.shape.count, "one destination for each conversion");
    static_assert(
        []<std::size_t... kArg>(std::index_sequence<kArg...>) {
            return (std::is_same_v<Ts, typename KeldArgOf<kArguments.shape.at[kArg]>::Type> && ...);
        }(std::make_index_sequence<sizeof...(Ts)>{}),
        "the destinations do not fit the conversions");
    std::size_t failedAt = 0;
    return KeldRow::Read<kArguments.by>(kel, kArguments, &failedAt, destinations...);
}

// Does what a row says, from a handler that decides when: false when the read failed.
template <const auto &kRows, std::size_t kIndex> bool KeldTranslate(Kel *kel)
{
    return KeldRow::Translate<kRows, kIndex>(kel);
}

// Posts an event from a handler: KeldPost<kLinkStateDown>(nic).
template <const EventText &kText, int kDefer = 0, class... Ts> void KeldPost(Ts... values)
{
    static_assert(
        ((std::is_convertible_v<Ts, const char *> || (std::is_integral_v<Ts> && sizeof(Ts) >= 4)) && ...),
        "texts, and numbers of 32 or 64 bits");
    static_assert(kText.shape.Fits(KeldShape::OfTypes<Ts...>()),
                  "the values do not fit the conversions of this text");
    KeldPostEvent(kDefer, kText.cls, kText.format, values...);
}
#pragma GCC diagnostic pop

// ---- What a correlator is made of -----------------------------------------------------------------

// The rows of one translation table with their handlers: KeldTranslations<kNetTranslations>.
struct KeldTranslationTable {
    std::span<const Translation> rows;
    const KeldHandler *handlers = nullptr;
};
template <const auto &kRows>
inline constexpr KeldTranslationTable KeldTranslations{{kRows}, KeldRow::kHandlers<kRows>.data()};

// An observation with a handler of its own. "Known and deliberately ignored" is such a row too.
struct KeldObservation {
    const char *id;
    KeldArguments arguments;
    KeldHandler handler;
    const char *note; // what becomes of it, for people: "gathered for 2 seconds per NIC, then ..."
    std::array<const EventText *, 8> posts{}; // what it can lead to
};

struct KeldDomain {
    const char *name;                      // the agent is called this and "Correlator"
    std::array<const char *, 2> domains{}; // "net" stands for every "kel.net."
    KeldHandler defaultHandler = nullptr;
    const char *otherwise = ""; // what becomes of other observations, for people
    KeldTranslationTable translations{};
    std::span<const KeldObservation> observations{};
    const EventText *defaultPosts = nullptr; // what the default handler can post
};

// The table from observation ID to handler.
KeldCorrelatorTable KeldDomainTable(const KeldDomain &domain);

// Builds the table and runs the common loop: all that a correlator without set-up of its own starts.
void KeldDomainRun(const KeldDomain &domain);

template <class Row, std::size_t N>
consteval bool DistinctUnder(const Row (&rows)[N], std::string_view prefix)
{
    for (std::size_t i = 0; i < N; ++i) {
        if (!std::string_view(rows[i].id).starts_with(prefix)) return false;
        for (std::size_t j = 0; j < i; ++j)
            if (std::string_view(rows[i].id) == rows[j].id) return false;
    }
    return true;
}

#endif
