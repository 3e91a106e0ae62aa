// Small files of the kernel's: sysfs, procfs.
#ifndef SOURCES_TEXTFILE_H
#define SOURCES_TEXTFILE_H

#include <cstdint>
#include <optional>
#include <string>

// All that is in it, at most a mebibyte, without a newline at the end; empty when it cannot be read.
std::string ReadTextFile(const std::string &file);

// A decimal number; nothing for anything else.
std::optional<std::uint64_t> ReadNumberFile(const std::string &file);

#endif
