// Which process this is, as no other under the same ID could be.
#ifndef KELD_PROCESS_H
#define KELD_PROCESS_H

#include <cstdint>
#include <string>

// When this process began, in clock ticks since the boot (field 22 of /proc/self/stat); 0 when it cannot be
// read. Any thread.
std::uint64_t KeldProcessStart();

// The kernel's ID of this boot; empty when it cannot be read. Any thread.
std::string KeldBootId();

#endif
