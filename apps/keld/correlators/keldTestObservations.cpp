#include "keldTestObservations.h"

#include "keldDomain.h"
#include "keldOwn.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::atomic<int> failures{0};

// What the test producer sends, in its order. In a message, the texts come before the integers.
struct ExpectedObservation {
    const char *id;
    std::string message;
    int texts, integers; // that are read one by one
};

using Expected = std::array<ExpectedObservation, kKeldTestObservations>;

// Larger than the first record buffer.
std::string Long(char c) { return std::string(20000, c); }

// Made when the first test starts: nobody else has to carry it.
const Expected &ExpectedObservations()
{
    // clang-format off
    static const Expected &expected = *new Expected{{
        {"kel.tests.user.withoutParams",          "Nothing to read.", 0, 0},
        {"kel.tests.user.withPercent",            "100% of nothing.", 0, 0},
        {"kel.tests.user.withStringParam",        "NIC vmnic2.", 1, 0},
        {"kel.tests.user.withEmptyStringParam",   "NIC .", 1, 0},
        {"kel.tests.user.withNullStringParam",    "NIC (null).", 1, 0},
        {"kel.tests.user.withIntParam",           "-2147483648 degrees.", 0, 1},
        {"kel.tests.user.withUintParam",          "4294967295 pages.", 0, 1},
        {"kel.tests.user.withCharParam",          "Drive A.", 0, 1},
        {"kel.tests.user.withShortParams",        "-32768 255.", 0, 2},
        {"kel.tests.user.withStringAndIntParams", "vmnic2 and vmnic3: 2 of 3.", 2, 2},
        {"kel.tests.user.withFieldWidths",        "|vmnic2  |   42|0x0000002a|", 1, 2},
        {"kel.tests.async.withoutParams",         "Nothing to read.", 0, 0},
        {"kel.tests.async.withIntParams",         "-7 1f 77.", 0, 3},
        {"kel.tests.async.withIntParams",         "-2147483648 ffffffff 2147483647.", 0, 3},
        {"kel.tests.async.withUintParams",        "7 1f 77.", 0, 3},
        {"kel.tests.async.withUintParams",        "4294967295 ffffffff 4294967295.", 0, 3},
        {"kel.tests.async.withStringParams",      "naa.60003ff44dc75adc.", 1, 0},
        {"kel.tests.async.withStringParams",      "vmnic2 vmnic3 vmnic4.", 3, 0},
        {"kel.tests.async.withLongStringParam",   Long('l') + ".", 1, 0},
        {"kel.tests.async.withLongStringParams",  Long('l') + " " + Long('m') + ".", 2, 0},
        {"kel.tests.async.withMixedParams",       "hba1:C0:T0:L4 4 1000000.", 1, 2},
    }};
    // clang-format on
    return expected;
}

// Each check is true when what it looks at is right; otherwise it has said so.

bool MessageIsRight(const Kel *kel, const ExpectedObservation &expected)
{
    char *text = nullptr;
    (void)Kel_GetMsg(kel, &text, nullptr);
    const MessageText message(text);
    if (text == nullptr)
        KeldTestFail("FAIL: Received NULL kelMsg for kelID = '%s'\n", expected.id);
    else if (expected.message != text)
        KeldTestFail("FAIL: Expected msg = '%s'; Got '%s'\n", expected.message.c_str(), text);
    else
        return true;
    return false;
}

// The arguments one by one: texts first, integers behind them. A lone one is named without its index.
bool ArgumentsAreRight(const Kel *kel, const ExpectedObservation &expected)
{
    for (int i = 0; i < expected.texts + expected.integers; ++i) {
        const bool isText = i < expected.texts;
        const char *text = nullptr;
        std::int32_t integer = 0;
        const int status = isText ? Kel_GetStringArg(kel, i, &text) : Kel_GetIntArg(kel, i, &integer);
        if (status == 0) continue;
        const char *reader = isText ? "Kel_GetStringArg" : "Kel_GetIntArg";
        if ((isText ? expected.texts : expected.integers) == 1)
            KeldTestFail("FAIL: %s returned %d\n", reader, status);
        else
            KeldTestFail("FAIL: %s returned %d @ i = %d\n", reader, status, i);
        return false;
    }
    return true;
}

bool SucceededFor(const char *id, int status)
{
    if (status != 0) KeldTestFail("FAIL: Kel_GetArgs failed for KEL %s: %s\n", id, std::strerror(status));
    return status == 0;
}

constexpr KeldArguments kInts = Args("%d %x %ld", "decimal, hexadecimal, long");
constexpr KeldArguments kWideInts = Args("%10d %10x %10ld", "decimal, hexadecimal, long");
constexpr KeldArguments kUints = Args("%u %x %lu", "decimal, hexadecimal, long");
constexpr KeldArguments kText = Args("%p", "text");
constexpr KeldArguments kTexts = Args("%p %p", "first, second");

template <const KeldArguments &kArguments, class Decimal, class Long>
bool NumbersAreRight(const Kel *kel, const char *id, const char *how)
{
    Decimal decimal = 0;
    std::uint32_t hexadecimal = 0;
    Long number = 0;
    if (!SucceededFor(id, KeldRead<kArguments>(kel, &decimal, &hexadecimal, &number))) return false;
    KeldTestSay("PASS: Kel_GetArgs%s succeeded for KEL %s. Args: %d, %x, %ld\n", how, id,
                static_cast<int>(decimal), hexadecimal, static_cast<long>(number));
    return true;
}

bool IntsAreRight(const Kel *kel, const char *id)
{
    return NumbersAreRight<kInts, std::int32_t, std::int64_t>(kel, id, "") &&
           NumbersAreRight<kWideInts, std::int32_t, std::int64_t>(kel, id,
                                                                  " (with field width specifiers)");
}

bool UintsAreRight(const Kel *kel, const char *id)
{
    return NumbersAreRight<kUints, std::uint32_t, std::uint64_t>(kel, id, "");
}

bool TextIsRight(const Kel *kel, const char *id)
{
    const char *text = nullptr;
    if (!SucceededFor(id, KeldRead<kText>(kel, &text))) return false;
    KeldTestSay("PASS: Kel_GetArgs succeeded for KEL %s. Args: %s\n", id, text);
    return true;
}

bool TextsAreRight(const Kel *kel, const char *id)
{
    const char *first = nullptr, *second = nullptr;
    if (!SucceededFor(id, KeldRead<kTexts>(kel, &first, &second))) return false;
    KeldTestSay("PASS: Kel_GetArgs succeeded for KEL %s. Args: %s, %s\n", id, first, second);
    return true;
}

struct ReadInOneCall {
    const char *id;
    bool (*isRight)(const Kel *kel, const char *id);
};
constexpr ReadInOneCall kReadInOneCall[] = {
    {"kel.tests.async.withIntParams", IntsAreRight},
    {"kel.tests.async.withUintParams", UintsAreRight},
    {"kel.tests.async.withStringParams", TextIsRight},
    {"kel.tests.async.withLongStringParam", TextIsRight},
    {"kel.tests.async.withLongStringParams", TextsAreRight},
};

} // namespace

bool KeldTestIsRight(const Kel *kel, const char *id, std::uint32_t place)
{
    const ExpectedObservation &expected = ExpectedObservations()[place];
    if (!Kel_IsID(id, expected.id)) {
        KeldTestFail("FAIL: Expected kelId = '%s'; Got '%s'\n", expected.id, id);
        return false;
    }
    if (!MessageIsRight(kel, expected) || !ArgumentsAreRight(kel, expected)) return false;
    for (const ReadInOneCall &row : kReadInOneCall)
        if (Kel_IsID(id, row.id)) return row.isRight(kel, id);
    return true;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // checked where they call
void KeldTestSay(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}

void KeldTestFail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    ++failures;
}
#pragma GCC diagnostic pop

int KeldTestFailures() { return failures.load(); }
