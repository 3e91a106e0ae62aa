#include "keldReadAhead.h"

#include <kltlibs/kelrecord.h>

#include <algorithm>
#include <cstring>
#include <sys/mman.h>

bool KeldReadAhead::Make()
{
    void *mapped = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return false;
    // Side by side, the agents' mappings would fill a huge page, all of it resident.
    (void)madvise(mapped, kBytes, MADV_NOHUGEPAGE);
    mBytes = static_cast<std::byte *>(mapped);
    return true;
}

KeldReadAhead::~KeldReadAhead()
{
    if (mBytes != nullptr) munmap(mBytes, kBytes);
}

std::uint32_t KeldReadAhead::Lacking() const
{
    const auto size = static_cast<std::uint32_t>(Size());
    if (size < KELRECORD_HEADER_BYTES) return KELRECORD_HEADER_BYTES - size;
    const std::uint32_t total = KelRecord_TotalLength(First());
    return total > size ? total - size : 0;
}

std::span<std::byte> KeldReadAhead::Room()
{
    if (mBegin > 0) std::memmove(mBytes, First(), Size());
    mEnd -= mBegin;
    mBegin = 0;
    return {mBytes + mEnd, kBytes - mEnd};
}

void KeldReadAhead::Add(std::size_t bytes)
{
    mEnd += bytes;
    mTouched = std::max(mTouched, mEnd);
}

void KeldReadAhead::Take(std::size_t bytes)
{
    mBegin += bytes;
    if (mBegin < mEnd) return;
    mBegin = mEnd = 0;
    if (mTouched <= kUsualBytes) return;
    (void)madvise(mBytes + kUsualBytes, kBytes - kUsualBytes, MADV_DONTNEED);
    mTouched = kUsualBytes;
}
