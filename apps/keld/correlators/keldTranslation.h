// Observations that become events, as rows of plain data that are proved while compiling.
//
// A Translation is one observation that becomes one event with nothing in between: its ID, the
// arguments read, the marked text. Its handler is instantiated from the table. What needs state or a
// decision has a handler of its own, which reads through KeldRead and posts through KeldPost.
//
// A row that could not work does not compile: a malformed marker, a type ID without a class, a text
// that does not fit its arguments, a failure message that does not fit what it is given.
#ifndef KELD_TRANSLATION_H
#define KELD_TRANSLATION_H

#include "keldConversion.h"
#include "keldCorrelator.h"
#include "keldPling.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <type_traits>

// Never defined: reaching one of these while a row is built is the compile error.
void RowError_UnknownConversion();
void RowError_TooManyArguments();
void RowError_MarkerMalformed();
void RowError_TypeIdHasNoClass();
void RowError_TextDoesNotFitArguments();
void RowError_NamesDoNotFitArguments();
void RowError_TwoObjects();
void RowError_FailureMessageMalformed();

inline constexpr std::size_t kKeldArgumentsMax = 12;

// ---- What a row is made of ------------------------------------------------------------------------

// What the conversions of a format stand for, a letter each: s text, v volume UUID, d u 32 bits, D U 64
// bits, signed and unsigned.
struct KeldShape {
    std::array<char, kKeldArgumentsMax> at{};
    std::uint8_t count = 0;

    // What is read has %p for a text and %U for a volume UUID, what is shown has %s.
    enum class Of { Read, Shown };

    consteval KeldShape(Of kind, std::string_view text)
    {
        while (const std::optional<KeldConversion> conversion = KeldTakeConversion(&text)) {
            if (count == at.size()) RowError_TooManyArguments();
            at[count++] = Letter(kind, *conversion);
        }
    }
    template <class... Ts> static consteval KeldShape OfTypes()
    {
        KeldShape shape(Of::Shown, "");
        ((shape.at[shape.count++] = std::is_convertible_v<Ts, const char *> ? 's'
                                    : sizeof(Ts) == 8                       ? 'D'
                                                                            : 'd'),
         ...);
        return shape;
    }

    // %#x may show what %d read: only the width and text-or-number must agree.
    consteval bool Fits(const KeldShape &given) const
    {
        for (std::size_t i = 0; i < count && count == given.count; ++i)
            if (Width(at[i]) != Width(given.at[i])) return false;
        return count == given.count;
    }

    bool operator==(const KeldShape &) const = default;

    static consteval char Letter(Of kind, const KeldConversion &conversion)
    {
        const char c = conversion.letter;
        const bool wide = conversion.length.starts_with('l');
        if (conversion.length.empty() && c == (kind == Of::Read ? 'p' : 's')) return 's';
        if (conversion.length.empty() && c == 'U' && kind == Of::Read) return 'v';
        if (conversion.length.empty() || wide) {
            if (c == 'd' || c == 'i') return wide ? 'D' : 'd';
            if (c == 'u' || c == 'x' || c == 'X' || c == 'o') return wide ? 'U' : 'u';
        }
        RowError_UnknownConversion();
        return 0;
    }
    static consteval int Width(char c) { return c == 's' || c == 'v' ? 0 : c == 'D' || c == 'U' ? 64 : 32; }
};

// Names in one text, separated by ", ". Among names of arguments a star marks the object: the device,
// NIC or file, say, that the observation or event is about.
struct KeldNames {
    const char *list = "";

    constexpr KeldNames(const char *names = "") : list(names) {}

    constexpr std::size_t Count() const
    {
        std::size_t count = 0;
        for (std::string_view rest = list; !rest.empty(); ++count)
            Take(&rest);
        return count;
    }
    // Empty when there are not so many.
    constexpr std::string_view operator[](std::size_t index) const
    {
        std::string_view rest = list;
        for (; index > 0; --index)
            Take(&rest);
        const std::string_view name = Take(&rest);
        return name.substr(name.starts_with('*') ? 1 : 0);
    }
    // Empty when no name has a star.
    constexpr std::string_view Object() const
    {
        const std::size_t star = std::string_view(list).find('*');
        std::string_view rest = star == std::string_view::npos ? "" : list + star + 1;
        return Take(&rest);
    }

    static constexpr std::string_view Take(std::string_view *rest)
    {
        const std::size_t end = std::min(rest->find(", "), rest->size());
        const std::string_view name = rest->substr(0, end);
        rest->remove_prefix(std::min(end + 2, rest->size()));
        return name;
    }
    consteval void RequireFor(const KeldShape &shape) const
    {
        if (Count() != shape.count) RowError_NamesDoNotFitArguments();
        for (std::size_t i = 0; i < shape.count; ++i)
            if ((*this)[i].empty()) RowError_NamesDoNotFitArguments();
        if (std::ranges::count(std::string_view(list), '*') > 1) RowError_TwoObjects();
    }
};

// What a handler reads: how, and what each value is called.
//
//     Args("%p %u", "*device, depth")                        in one call with the conversions as a format
//     Indexed("%d %p", "mtu, *uplink")                       one argument at a time, by position
//     ByMessage("Page %lu of %s is lost.", "page, *file")    by the producer's own message text
struct KeldArguments {
    enum class By : std::uint8_t { Format, Index, Message };

    By by;
    KeldShape shape;
    const char *format;
    KeldNames names;

    consteval KeldArguments(By how, const char *text, KeldNames called)
        : by(how), shape(how == By::Message ? KeldShape::Of::Shown : KeldShape::Of::Read, text),
          format(text), names(called)
    {
        names.RequireFor(shape);
    }
};
consteval KeldArguments Args(const char *conversions, KeldNames names = "")
{
    return {KeldArguments::By::Format, conversions, names};
}
consteval KeldArguments Indexed(const char *conversions, KeldNames names = "")
{
    return {KeldArguments::By::Index, conversions, names};
}
consteval KeldArguments ByMessage(const char *text, KeldNames names)
{
    return {KeldArguments::By::Message, text, names};
}

// Which problems a clear ends, and the arguments by which they are matched. What one clear ends on other
// arguments than the rest stands with the problem: it says which clears end it, and on which.
struct KeldPairing {
    KeldNames clears{};    // event type IDs
    KeldNames on{};        // names of arguments of both; none: by type alone
    KeldNames clearedBy{}; // event type IDs
    bool remembered = false; // of a clear: only the daemon that has posted the problem posts it
};

// A marked text. Its class is read from its own type ID, so the two cannot disagree.
struct EventText {
    const char *format;
    KeldNames names{}; // of the placeholders
    KeldPairing pairing{};
    KeldEventClass cls = KeldEventClass::Problem;
    KeldShape shape;

    // Within a row, which knows the names.
    consteval EventText(const char *marked) : format(marked), shape(KeldShape::Of::Shown, TextOf(marked))
    {
        const std::string_view type = TypeId();
        if (type.starts_with("nox.audit."))
            cls = KeldEventClass::Audit;
        else if (type.starts_with("nox.clear."))
            cls = KeldEventClass::Clear;
        else if (!type.starts_with("nox.problem."))
            RowError_TypeIdHasNoClass();
    }
    // On its own: names of the placeholders, in order.
    consteval EventText(const char *marked, KeldNames called, KeldPairing pair = {}) : EventText(marked)
    {
        called.RequireFor(shape);
        names = called;
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

// ---- The row --------------------------------------------------------------------------------------

// What only some rows need.
struct KeldRowOptions {
    KeldPairing pairing{};
    // Logged when the read fails: one message for a read in one call, given the observation ID and the
    // status; one for each indexed argument, given the status.
    std::array<const char *, 2> failed{};
    KeldHandler handler = nullptr; // posts this row's event in a way of its own
};

struct Translation {
    const char *id;
    KeldArguments arguments;
    EventText event;
    std::array<const char *, 2> failed;
    KeldHandler handler;

    consteval Translation(const char *kelId, KeldArguments read, EventText text, KeldRowOptions more = {})
        : id(kelId), arguments(read), event(text), failed(more.failed), handler(more.handler)
    {
        if (!text.shape.Fits(read.shape)) RowError_TextDoesNotFitArguments();
        event.names = read.names;
        event.pairing = more.pairing;
        for (std::size_t i = 0; i < failed.size(); ++i) {
            if (failed[i] == nullptr) continue;
            const bool byIndex = read.by == KeldArguments::By::Index;
            const KeldShape given =
                byIndex ? KeldShape::OfTypes<int>() : KeldShape::OfTypes<const char *, int>();
            if (KeldShape(KeldShape::Of::Shown, failed[i]) != given || (i > 0 && !byIndex))
                RowError_FailureMessageMalformed();
        }
    }
};
static_assert(sizeof(Translation) <= 160, "a row does not pay for what few others need");

// For a table's author: every ID lies below the prefix, and none comes twice.
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
