// What keladm refuses, and tables of it.
#ifndef TESTS_UNIT_KELADMFAILURE_H
#define TESTS_UNIT_KELADMFAILURE_H

#include "failure.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

// The message of the failure, or "no failure".
template <typename Call> std::string FailureOf(Call call)
{
    try {
        call();
    } catch (const Failure &failure) {
        return failure.what();
    }
    return "no failure";
}

struct Refusal {
    std::string input;
    std::string message; // what it must contain
};

template <typename Parse> void ExpectRefusals(const std::vector<Refusal> &refusals, Parse parse)
{
    for (const Refusal &refusal : refusals)
        EXPECT_THAT(FailureOf([&] { parse(refusal.input); }), testing::HasSubstr(refusal.message))
            << refusal.input;
}

#endif
