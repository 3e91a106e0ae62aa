// keld-status, read and checked: kltlibs/statusfile.h is its layout.
#ifndef KELADM_STATUSFILE_H
#define KELADM_STATUSFILE_H

#include <cstddef>
#include <kltlibs/statusfile.h>
#include <span>
#include <string>

struct StatusFile {
    enum class Kind { Absent, Damaged, OtherVersion, Good };
    Kind kind = Kind::Absent;
    std::string problem;      // what is wrong, unless it is good
    KeldStatusFile content{}; // when it is good: every text ends, every standing and phase is a known one
};

// The file's bytes; what lies behind them is not looked at.
StatusFile DecodeStatusFile(std::span<const std::byte> bytes);

// Never waits and never fails: what cannot be read has its problem told.
StatusFile ReadStatusFile(const std::string &path);

inline unsigned StandingCode(const KeldStatusThread &thread) { return thread.state & 0xFF; }
inline std::uint64_t StandsSince(const KeldStatusThread &thread)
{
    return thread.state >> kKeldStandingBits;
}

#endif
