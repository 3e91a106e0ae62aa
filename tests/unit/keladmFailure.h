// What keladm refuses, and tables of it.
#ifndef TESTS_UNIT_KELADMFAILURE_H
#define TESTS_UNIT_KELADMFAILURE_H

#include "commands.h"

#include <gmock/gmock.h>
#include <utility>
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

// Inputs, and what the message of each must contain.
using Refusals = std::vector<std::pair<std::string, std::string>>;

template <typename Parse> void ExpectRefusals(const Refusals &refusals, Parse parse)
{
    for (const auto &[input, message] : refusals)
        EXPECT_THAT(FailureOf([&] { parse(input); }), testing::HasSubstr(message)) << input;
}

#endif
