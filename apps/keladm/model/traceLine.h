// The daemon's trace lines.
//
//     1714557600.123456789,IN,1714557600123000,kel.net.vmnic.linkstate.down,,"vmnic0",3
//
// Wall-clock seconds, direction, the record's own microseconds, ID, an empty field where there are
// arguments, the arguments. A text lies between double quotes, those inside doubled, and may hold
// newlines; a null text is "(null)"; an argument of a reserved type is ???.
#ifndef KELADM_TRACELINE_H
#define KELADM_TRACELINE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct TraceArgument {
    enum Kind { Integer, Text, Unreadable } kind = Integer;
    std::string text; // an integer as its decimal digits

    bool operator==(const TraceArgument &) const = default;
};

struct TraceLine {
    std::string seconds; // with nine decimals
    bool in = false;
    std::uint64_t timestamp = 0; // microseconds
    std::string id;
    std::vector<TraceArgument> arguments;
};

// Throws Failure saying what is wrong and in which field.
TraceLine ParseTraceLine(std::string_view line);

// Cuts what comes from the socket into lines, without their newlines, minding those inside texts.
class TraceSplitter {
public:
    void Append(std::string_view bytes);

    // The next whole line. One that does not end within kLineBytesMax comes cut, so that a stray quote
    // cannot swallow all that follows.
    std::optional<std::string> Next();

    static constexpr size_t kLineBytesMax = 1024 * 1024;

private:
    std::string mWaiting;
    size_t mLooked = 0; // of mWaiting, and how far into a text that is
    bool mInText = false;
};

#endif
