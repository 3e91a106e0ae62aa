// Waiting for a condition that another thread or process brings about.
#ifndef TESTSUPPORT_WAITFOR_H
#define TESTSUPPORT_WAITFOR_H

#include <chrono>
#include <functional>

// How long a test waits for what must come: generous, for sanitizers on a loaded machine.
constexpr std::chrono::seconds kWaitLimit{60};

// True as soon as condition() holds, false when limit has passed without.
bool WaitUntil(const std::function<bool()> &condition, std::chrono::milliseconds limit = kWaitLimit);

// What poll reports of a descriptor; 0 when limit has passed without any of events.
short WaitForEvents(int fd, short events, std::chrono::milliseconds limit = kWaitLimit);

// Uses processor time of this process, as much as somebody who spins would get meanwhile.
void UseProcessorTime(std::chrono::milliseconds amount);

#endif
