// Message texts as a hostile producer of observations might write them.
#include "fuzz.h"

#include "keldUtil.h"

#include <algorithm>
#include <array>
#include <kelproducer.h>
#include <utility>

namespace {

// An observation with numbers, texts and a null text to read.
Kel *MakeObservation()
{
    void *buffer = std::malloc(KELPRODUCER_RECORD_BYTES_MAX);
    std::size_t length = 0;
    Kel *kel = nullptr;
    FUZZ_CHECK(buffer != nullptr);
    FUZZ_CHECK(KelRecord_Build(buffer, KELPRODUCER_RECORD_BYTES_MAX, &length, 0, "kel.fuzz",
                               "%s %d %lu %s %x %ld %s %u", "first", -1, ~0UL, "", 0x7fU, -5L,
                               static_cast<const char *>(nullptr), 3U) == 0);
    FUZZ_CHECK(Kel_MakeKel(buffer, static_cast<std::uint32_t>(length), &kel) == 0);
    return kel;
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

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Kel *const kel = MakeObservation();
    const std::string text(AsText(data, size));
    Destinations to;
    to.fill(kUntouched);
    const int status =
        Read(kel, text.c_str(), to, std::make_index_sequence<std::tuple_size_v<Destinations>>{});
    const auto firstLeft = std::find(to.begin(), to.end(), kUntouched);
    FUZZ_CHECK(firstLeft != to.end());
    // All of them are written, in their order and without a gap, or none is.
    FUZZ_CHECK(std::all_of(firstLeft, to.end(), [](std::uint64_t left) { return left == kUntouched; }));
    FUZZ_CHECK(status == 0 || firstLeft == to.begin());
    return 0;
}
