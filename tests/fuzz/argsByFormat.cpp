// Message texts as a hostile producer of observations might write them.

#include "keldUtil.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <kelproducer.h>
#include <string>
#include <utility>

namespace {

// An observation with numbers, texts and a null text to read.
Kel *MakeObservation()
{
    void *buffer = std::malloc(KELPRODUCER_RECORD_BYTES_MAX);
    std::size_t length = 0;
    Kel *kel = nullptr;
    if (buffer == nullptr ||
        KelRecord_Build(buffer, KELPRODUCER_RECORD_BYTES_MAX, &length, 0, "kel.fuzz",
                        "%s %d %lu %s %x %ld %s %u", "first", -1, ~0UL, "", 0x7fU, -5L,
                        static_cast<const char *>(nullptr), 3U) != 0 ||
        Kel_MakeKel(buffer, static_cast<std::uint32_t>(length), &kel) != 0)
        std::abort();
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
    const std::string text(reinterpret_cast<const char *>(data), size);
    Destinations to;
    to.fill(kUntouched);
    const int status =
        Read(kel, text.c_str(), to, std::make_index_sequence<std::tuple_size_v<Destinations>>{});
    if (to.back() != kUntouched) std::abort();
    if (status == 0) return 0;
    for (const std::uint64_t destination : to)
        if (destination != kUntouched) std::abort();
    return 0;
}
