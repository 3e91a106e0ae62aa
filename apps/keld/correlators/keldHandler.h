// What handlers are made of: arguments read into typed values, events posted from them, and the handler
// of each row of a table. Types are proved while compiling: the library's readers take untyped pointers,
// which no compiler checks.
#ifndef KELD_HANDLER_H
#define KELD_HANDLER_H

#include "keldFate.h"
#include "keldLog.h"
#include "keldTranslation.h"
#include "keldUtil.h"

#include <kltlibs/kel.h>

#include <cerrno>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>

// A volume UUID, which travels as nine numbers and is shown as one text.
struct KeldVolumeUuid {
    std::uint32_t first = 0, second = 0;
    std::uint16_t third = 0;
    std::array<std::uint8_t, 6> node{};
    std::array<char, 36> text{};

    const char *Format(); // the text, which is this object's own
};

// What an argument of each letter is read into.
using KeldValues =
    std::tuple<const char *, KeldVolumeUuid, std::int32_t, std::uint32_t, std::int64_t, std::uint64_t>;
template <char kLetter>
using KeldValue = std::tuple_element_t<std::string_view("svduDU").find(kLetter), KeldValues>;

namespace KeldRow {

inline int ReadAt(const Kel *kel, int index, const char **out) { return Kel_GetStringArg(kel, index, out); }
inline int ReadAt(const Kel *kel, int index, std::int32_t *out) { return Kel_GetIntArg(kel, index, out); }
inline int ReadAt(const Kel *kel, int index, std::uint32_t *out)
{
    return Kel_GetIntArg(kel, index, reinterpret_cast<std::int32_t *>(out));
}

// Where the library writes a value to.
template <class T> auto Destinations(T *value) { return std::tuple(value); }
inline auto Destinations(KeldVolumeUuid *value)
{
    auto &[a, b, c, d, e, f] = value->node;
    return std::tuple(&value->first, &value->second, &value->third, &a, &b, &c, &d, &e, &f);
}

template <class T> bool IsNull(const T &) { return false; }
inline bool IsNull(const char *text) { return text == nullptr; }

template <class T> T Shown(T value) { return value; }
inline const char *Shown(KeldVolumeUuid &value) { return value.Format(); }

// The row's format with the numbers of a volume UUID in place of "%U".
std::string LibraryFormat(std::string format);

// Reads every argument; 0, or the status of the read that failed, whose position goes to *failedAt. A
// null text counts as a failed read; what was read is written all the same.
template <KeldArguments::By kBy, class... Ts>
int Read(const Kel *kel, const char *format, std::size_t *failedAt, Ts *...values)
{
    *failedAt = 0;
    if constexpr (sizeof...(Ts) == 0) {
        return 0;
    } else if constexpr (kBy == KeldArguments::By::Index) {
        int status = 0;
        std::size_t at = 0;
        const auto readOne = [&](auto *value) {
            *failedAt = at;
            status = ReadAt(kel, static_cast<int>(at++), value);
            if (status == 0 && IsNull(*value)) status = EINVAL;
            return status == 0;
        };
        (void)(readOne(values) && ...);
        return status;
    } else {
        const int status = std::apply(
            [&](auto *...destinations) {
                if constexpr (kBy == KeldArguments::By::Message)
                    return KeldGetArgsByFormat(kel, format, destinations...);
                else if constexpr (sizeof...(destinations) == sizeof...(Ts))
                    return Kel_GetArgs(kel, 0, format, destinations...);
                else
                    return Kel_GetArgs(kel, 0, LibraryFormat(format).c_str(), destinations...);
            },
            std::tuple_cat(Destinations(values)...));
        return status == 0 && (IsNull(*values) || ...) ? EINVAL : status;
    }
}

// "Proved when the row was built": the formats below are the row's, not literals at the call.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

void LogFailedRead(const Translation &row, const Kel *kel, std::size_t failedAt, int status);
void SayUnreadable(std::size_t failedAt, KeldArguments::By by);

// One body for each argument signature; all rows of a signature share it. False when the read failed.
template <KeldArguments::By kBy, class... Ts> bool ReadAndPost(const Kel *kel, const Translation &row)
{
    std::tuple<Ts...> values{};
    return std::apply(
        [&](auto &...value) {
            std::size_t failedAt = 0;
            const int status = Read<kBy>(kel, row.arguments.format, &failedAt, &value...);
            if (status == 0) {
                KeldPostEvent(0, row.event.cls, row.event.format, Shown(value)...);
                return true;
            }
            LogFailedRead(row, kel, failedAt, status);
            SayUnreadable(failedAt, kBy);
            return false;
        },
        values);
}

// One row: a tail call into the body of its signature.
template <const auto &kRows, std::size_t kIndex> bool Translate(const Kel *kel)
{
    return [kel]<std::size_t... kArg>(std::index_sequence<kArg...>)
    {
        return ReadAndPost<kRows[kIndex].arguments.by,
                           KeldValue<kRows[kIndex].arguments.shape.at[kArg]>...>(kel, kRows[kIndex]);
    }
    (std::make_index_sequence<kRows[kIndex].arguments.shape.count>{});
}
template <const auto &kRows, std::size_t kIndex> void Handle(Kel *kel) { Translate<kRows, kIndex>(kel); }

// For each row of a table, in its order: its Translate, and the handler that only calls it.
template <const auto &kRows>
inline constexpr auto kTranslations = []<std::size_t... kIndex>(std::index_sequence<kIndex...>)
{
    return std::array{&Translate<kRows, kIndex>...};
}
(std::make_index_sequence<std::size(kRows)>{});
template <const auto &kRows>
inline constexpr auto kHandlers = []<std::size_t... kIndex>(std::index_sequence<kIndex...>)
{
    return std::array<KeldHandler, sizeof...(kIndex)>{&Handle<kRows, kIndex>...};
}
(std::make_index_sequence<std::size(kRows)>{});

} // namespace KeldRow

// Reads what arguments says into destinations whose types are proved against it: 0, or the status.
//
//     static constexpr KeldArguments kPathState = Indexed("%p %p", "*path, previousState");
//     if (KeldRead<kPathState>(kel, &path, &previousState) != 0) return;
//
// A null text is a failure, too, but is written as such, with the texts and numbers beside it.
template <const KeldArguments &kArguments, class... Ts> int KeldRead(const Kel *kel, Ts *...destinations)
{
    static_assert(sizeof...(Ts) == kArguments.shape.count, "one destination for each conversion");
    static_assert(
        []<std::size_t... kArg>(std::index_sequence<kArg...>) {
            return (std::is_same_v<Ts, KeldValue<kArguments.shape.at[kArg]>> && ...);
        }(std::make_index_sequence<sizeof...(Ts)>{}),
        "the destinations do not fit the conversions");
    std::size_t failedAt = 0;
    const int status = KeldRow::Read<kArguments.by>(kel, kArguments.format, &failedAt, destinations...);
    if (status != 0) KeldRow::SayUnreadable(failedAt, kArguments.by);
    return status;
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

// Does what a row says, from a handler that several rows share and that decides when: the row of the
// observation's ID, of those that name the handler.
enum class KeldTranslated { Posted, NotRead, NoSuchRow };
template <const auto &kRows, KeldHandler kHandler> KeldTranslated KeldTranslateById(const Kel *kel)
{
    const char *id = nullptr;
    (void)Kel_GetID(kel, &id);
    for (std::size_t i = 0; i < std::size(kRows); ++i)
        if (kRows[i].handler == kHandler && Kel_IsID(id, kRows[i].id))
            return KeldRow::kTranslations<kRows>[i](kel) ? KeldTranslated::Posted : KeldTranslated::NotRead;
    return KeldTranslated::NoSuchRow;
}

#endif
