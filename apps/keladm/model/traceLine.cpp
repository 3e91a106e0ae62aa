#include "traceLine.h"

#include "failure.h"
#include "text.h"

#include <charconv>
#include <fmt/format.h>

namespace {

bool IsDigits(std::string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Takes the fields of a line one by one.
class FieldReader {
public:
    explicit FieldReader(std::string_view line) : mRest(line) {}

    bool AtEnd() const { return mEnded; }

    [[noreturn]] void Fail(const std::string &what) const
    {
        throw Failure(kExitFailed, fmt::format("field {}: {}", mField, what));
    }

    std::string_view Plain()
    {
        StartField();
        std::string_view text = mRest.substr(0, mRest.find(','));
        mRest.remove_prefix(text.size());
        EndField();
        return text;
    }

    TraceArgument Argument()
    {
        if (!mRest.starts_with('"')) return PlainArgument();
        StartField();
        TraceArgument argument{TraceArgument::Text, ""};
        for (size_t i = 1;; i++) {
            if (i >= mRest.size()) Fail("a text that does not end");
            if (mRest[i] == '"' && (i + 1 >= mRest.size() || mRest[i + 1] != '"')) {
                mRest.remove_prefix(i + 1);
                break;
            }
            if (mRest[i] == '"') i++;
            argument.text += mRest[i];
        }
        EndField();
        return argument;
    }

private:
    void StartField()
    {
        mField++;
        if (mEnded) Fail("missing");
    }

    void EndField()
    {
        mEnded = mRest.empty();
        if (!mEnded && mRest[0] != ',') Fail("more behind a text's closing quote");
        if (!mEnded) mRest.remove_prefix(1);
    }

    TraceArgument PlainArgument()
    {
        std::string text(Plain());
        if (text == "???") return {TraceArgument::Unreadable, text};
        std::int64_t number = 0;
        std::uint64_t magnitude = 0;
        const char *end = text.data() + text.size();
        auto whole = [&](auto result) { return result.ec == std::errc() && result.ptr == end; };
        if (!whole(std::from_chars(text.data(), end, number)) &&
            !whole(std::from_chars(text.data(), end, magnitude)))
            Fail(fmt::format("{} is neither an integer nor a text", Quoted(text)));
        return {TraceArgument::Integer, text};
    }

    std::string_view mRest;
    size_t mField = 0;
    bool mEnded = false;
};

} // namespace

TraceLine ParseTraceLine(std::string_view text)
{
    FieldReader reader(text);
    TraceLine line;

    line.seconds = reader.Plain();
    size_t point = line.seconds.find('.');
    bool time = point != std::string::npos && IsDigits(line.seconds.substr(0, point)) &&
                IsDigits(line.seconds.substr(point + 1)) && line.seconds.size() - point == 10;
    if (!time) reader.Fail(fmt::format("{} is no time with nine decimals", Quoted(line.seconds)));

    std::string direction(reader.Plain());
    line.in = direction == "IN";
    if (!line.in && direction != "OUT")
        reader.Fail(fmt::format("{} is neither IN nor OUT", Quoted(direction)));

    std::string_view timestamp = reader.Plain();
    auto [end, status] =
        std::from_chars(timestamp.data(), timestamp.data() + timestamp.size(), line.timestamp);
    if (!IsDigits(timestamp) || status != std::errc() || end != timestamp.data() + timestamp.size())
        reader.Fail(fmt::format("{} is no time in microseconds", Quoted(timestamp)));

    line.id = reader.Plain();
    if (line.id.empty()) reader.Fail("the ID is empty");

    // The line has a "," behind the ID, and every argument one of its own.
    if (reader.AtEnd()) reader.Fail("the \",\" behind the ID is missing");
    std::string_view between = reader.Plain();
    if (!between.empty()) reader.Fail(fmt::format("{} where nothing may stand", Quoted(between)));
    while (!reader.AtEnd())
        line.arguments.push_back(reader.Argument());
    return line;
}

void TraceSplitter::Append(std::string_view bytes) { mWaiting += bytes; }

std::optional<std::string> TraceSplitter::Next()
{
    for (; mLooked < mWaiting.size(); mLooked++) {
        char c = mWaiting[mLooked];
        // A doubled quote ends a text and starts it again.
        if (c == '"') mInText = !mInText;
        if ((c != '\n' || mInText) && mLooked < kLineBytesMax) continue;

        std::string line = mWaiting.substr(0, mLooked);
        mWaiting.erase(0, c == '\n' ? mLooked + 1 : mLooked);
        mLooked = 0;
        mInText = false;
        return line;
    }
    return std::nullopt;
}
