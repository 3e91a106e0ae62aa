// What the fuzz targets share.
//
// A target is one file with one LLVMFuzzerTestOneInput. It is linked twice: with libFuzzer, which makes
// up inputs, and with replayMain.cpp, which runs those of corpus/<target> as the test fuzz.<target>. A
// file that once broke a target is put there and stays.
#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// What has to hold for every input. Ends the program, so that the fuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                              \
    do {                                                                                                   \
        if (!(condition)) {                                                                                \
            std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);                 \
            std::abort();                                                                                  \
        }                                                                                                  \
    } while (false)

inline std::string_view AsText(const std::uint8_t *data, std::size_t size)
{
    return {reinterpret_cast<const char *>(data), size};
}

// Takes the bytes up to the first separator off *rest, and the separator; all of it when there is none.
inline std::string TakeUntil(std::string_view *rest, char separator)
{
    const std::string_view part = rest->substr(0, rest->find(separator));
    rest->remove_prefix(part.size() < rest->size() ? part.size() + 1 : part.size());
    return std::string(part);
}

#endif
