// The diagnostic log: one line a call, at informational priority. Callable from every thread.
#ifndef KELD_LOG_H
#define KELD_LOG_H

#include <cstddef>
#include <cstdint>

struct Kel;

// Writes one line, with the local time in front. Most formats end in "\n"; nothing is added.
void KeldLog(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Ends the process by abort(), with the message on standard error and in the log. For what cannot be.
[[noreturn]] void Panic(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The panic that names a place. The line belongs to the message and is no line of this source.
[[noreturn]] void KeldNotReached(const char *module, int line);

// The trace line of an observation, and of anything with an ID, a text and microseconds.
void KeldLogKel(Kel *kel);
void KeldLogTraceLine(const char *id, const char *message, std::uint64_t microseconds);

// Writes "2026-03-01T12:00:00.123Z: " (local time; the Z is literal) into buffer: the characters
// written, 0 when the time cannot be read.
std::size_t KeldLogTimestamp(bool milliseconds, char *buffer, std::size_t size);

#endif
