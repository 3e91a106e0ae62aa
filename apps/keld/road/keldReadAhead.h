// What an agent has read out of its pipe and not yet taken as a record.
#ifndef KELD_READ_AHEAD_H
#define KELD_READ_AHEAD_H

#include <kltlibs/kel.h>

#include <cstddef>
#include <cstdint>
#include <span>

// Room for the largest record and for all that a pipe holds. What a burst has made resident is given back
// when nothing is left of it. One agent's own.
class KeldReadAhead {
public:
    KeldReadAhead() = default;
    ~KeldReadAhead();
    KeldReadAhead(const KeldReadAhead &) = delete;
    KeldReadAhead &operator=(const KeldReadAhead &) = delete;

    bool Make(); // false without memory; once, before anything else

    const std::byte *First() const { return mBytes + mBegin; }
    std::size_t Size() const { return mEnd - mBegin; }

    // How many bytes the first record lacks: of its header as long as that is not there, else of its whole;
    // 0 when it is there.
    std::uint32_t Lacking() const;

    // Where to read to, behind what is there: never empty while the first record lacks something. What was
    // read counts once it is added.
    std::span<std::byte> Room();
    void Add(std::size_t bytes);

    void Take(std::size_t bytes); // off the front

private:
    static constexpr std::size_t kBytes = 0x20000;
    static constexpr std::size_t kUsualBytes = 8192; // stay resident
    static_assert(KELLIB_BATCH_BYTES_MAX < kBytes, "the largest record fits");

    std::byte *mBytes = nullptr; // mapped
    std::size_t mBegin = 0, mEnd = 0;
    std::size_t mTouched = 0; // bytes that may be resident
};

#endif
