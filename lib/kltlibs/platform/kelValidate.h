// The one judge of observation records: what a channel lets in and what becomes a Kel.
#ifndef KLTLIBS_SRC_KELVALIDATE_H
#define KLTLIBS_SRC_KELVALIDATE_H

#include <array>
#include <cstddef>

using KelFaultText = std::array<char, 128>;

// True when the bytes are one or more whole, valid records back to back. Otherwise false with *fault
// such as "record at byte 40: argument 2: string outside the record".
bool KelValidate_Batch(const void *bytes, std::size_t length, KelFaultText *fault);

// True when the bytes are exactly one valid record.
bool KelValidate_Record(const void *bytes, std::size_t length);

#endif
