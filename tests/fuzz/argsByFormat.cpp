// Message texts as a hostile producer of observations might write them.
#include "fuzz.h"

#include "keldUtil.h"

#include <algorithm>
#include <array>
#include <kelproducer.h>
#include <utility>

namespace {

// An observation with numbers, texts and a null text to read.
auto MakeObservation()
{
    static std::array<char, 1000> buffer;
    std::size_t length = 0;
    FUZZ_CHECK(KelRecord_Build(buffer.data(), buffer.size(), &length, 0, "kel.fuzz",
                               "%s %d %lu %s %x %ld %s %u", "first", -1, ~0UL, "", 0x7fU, -5L,
                               static_cast<const char *>(nullptr), 3U) == 0);
    return MakeKel({buffer.data(), length});
}

// One destination more than there are arguments: no reader may ask for more.
constexpr std::uint64_t kUntouched = 0x5a5a5a5a5a5a5a5a;
using Destinations = std::array<std::uint64_t, 9>;

template <std::size_t... kAt>
int Read(const Kel *kel, const char *text, Destinations &to, std::index_sequence<kAt...>)
{
    return KeldGetArgsByFormat(kel, text, static_cast<void *>(&to[kAt])...);
}

} // namespace

void Fuzz(std::string_view input)
{
    static const auto kel = MakeObservation();
    Destinations to;
    to.fill(kUntouched);
    const int status =
        Read(kel.get(), std::string(input).c_str(), to, std::make_index_sequence<to.size()>{});
    // All of them are written, in their order and without a gap, or none is.
    const auto firstLeft = std::find(to.begin(), to.end(), kUntouched);
    FUZZ_CHECK(firstLeft != to.end() &&
               std::count(firstLeft, to.end(), kUntouched) == to.end() - firstLeft);
    FUZZ_CHECK(status == 0 || firstLeft == to.begin());
}
