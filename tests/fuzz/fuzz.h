// What the fuzz targets share.
//
// A target is one file with one Fuzz. It is linked twice with main.cpp: with libFuzzer, which makes up
// inputs, and without, where it runs those of corpus/<target> as the test fuzz.<target>. A file that once
// broke a target is put there and stays.
#ifndef TESTS_FUZZ_FUZZ_H
#define TESTS_FUZZ_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <kltlibs/kel.h>
#include <memory>
#include <string>
#include <string_view>

// The input lies in memory of exactly its size, so that a sanitizer sees a read behind its end.
void Fuzz(std::string_view input);

// What has to hold for every input. Ends the program, so that the fuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                              \
    do {                                                                                                   \
        if (!(condition)) {                                                                                \
            std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition);                 \
            std::abort();                                                                                  \
        }                                                                                                  \
    } while (false)

// Takes the bytes up to the first separator off *rest, and the separator; all of it when there is none.
std::string TakeUntil(std::string_view *rest, char separator);

// The text, which is freed; checks that it ends where its length says.
std::string TakeText(char *text, std::size_t length);

// Null when the record is refused.
std::unique_ptr<Kel, void (*)(Kel *)> MakeKel(std::string_view record);

#endif
