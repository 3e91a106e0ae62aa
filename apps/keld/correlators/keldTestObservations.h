// What the self-test's producer sends, what is found about it, and how that is told.
#ifndef KELD_TEST_OBSERVATIONS_H
#define KELD_TEST_OBSERVATIONS_H

#include <cstddef>
#include <cstdint>
#include <kltlibs/kel.h>

constexpr std::size_t kKeldTestObservations = 21; // between the start and the end marker

// True when the observation is the one that is sent at this place, from 0 up to kKeldTestObservations, and
// can be read as that one; otherwise it has been told. The agent's thread.
bool KeldTestIsRight(const Kel *kel, const char *id, std::uint32_t place);

// Findings, on standard output; a failure is counted. Any thread.
void KeldTestSay(const char *format, ...) __attribute__((format(printf, 1, 2)));
void KeldTestFail(const char *format, ...) __attribute__((format(printf, 1, 2)));
int KeldTestFailures(); // so far

#endif
