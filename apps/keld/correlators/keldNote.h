// What becomes of an observation, told to people: the catalogue prints it.
//
// The numbers that a handler obeys stand beside the text as data, out of the handler's own constants, and
// the text shows them by name: "gathered for {delay} per NIC".
#ifndef KELD_NOTE_H
#define KELD_NOTE_H

#include <array>
#include <cstdint>

struct KeldLimit {
    const char *name = nullptr; // "holdOff", "delay", "threshold"
    std::uint64_t value = 0;
    const char *unit = ""; // "seconds"; empty for a count
};

struct KeldNote {
    const char *text;
    std::array<KeldLimit, 3> limits{};

    template <class... Limits>
    constexpr KeldNote(const char *note, Limits... named) : text(note), limits{KeldLimit(named)...}
    {
    }
};

#endif
