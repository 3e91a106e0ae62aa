// One line of the trace.
#ifndef KELD_TRACE_LINE_H
#define KELD_TRACE_LINE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

// A record as the trace shows it; its bytes may lie at any address.
struct KeldTraced {
    std::string_view direction; // ",IN," or ",OUT,"
    std::uint64_t timestamp;    // microseconds
    const char *id;
    std::uint32_t argumentCount;
    const void *argumentArea;
    const void *end;
};

// Lies on the stack of the thread that has the record.
class KeldTraceLine {
public:
    explicit KeldTraceLine(const KeldTraced &record); // may throw std::bad_alloc
    KeldTraceLine(const KeldTraceLine &) = delete;
    KeldTraceLine &operator=(const KeldTraceLine &) = delete;

    std::string_view Text() const { return mText; } // empty when an argument cannot be read

private:
    static constexpr std::size_t kUsualBytes = 2048;

    char mUsual[kUsualBytes];
    std::unique_ptr<char[]> mLarger; // for what has no room there
    std::string_view mText;
};

#endif
