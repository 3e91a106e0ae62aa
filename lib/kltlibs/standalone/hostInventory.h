// The host inventory: the tree of small text files that stands in for the host.
//
// Read afresh at every call, so that a shell, a test or a simulator can change the host under a
// running daemon. Writers write a temporary file and rename it. Callable from every thread; writes of
// the same entry are the caller's to order.
//
// Every path is given as its parts ("storage", "paths", "hba1:C0:T0:L4"); a "/" or "%" inside a
// part is written %2F and %25 on disk and comes back as it was.
#ifndef KLTLIBS_STANDALONE_HOSTINVENTORY_H
#define KLTLIBS_STANDALONE_HOSTINVENTORY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HostInventory {

using Path = std::vector<std::string>;

// The text of an entry without one trailing newline; nothing when it is absent. error, which may be
// null, gets 0, ENOENT, or the errno of what failed (an entry that is a directory: EISDIR).
std::optional<std::string> ReadText(const Path &path, int *error = nullptr);

// 0 with *value set; ENOENT when absent; EINVAL when it is not a decimal integer; ERANGE outside
// [low, high] (for the unsigned form: above high); or an errno value. No blanks, no "+".
int ReadInteger(const Path &path, std::int64_t low, std::int64_t high, std::int64_t *value);
int ReadUnsigned(const Path &path, std::uint64_t high, std::uint64_t *value);
int ParseInteger(std::string_view text, std::int64_t low, std::int64_t high, std::int64_t *value);
int ParseUnsigned(std::string_view text, std::uint64_t high, std::uint64_t *value);

bool IsDirectory(const Path &path);

// The names in a directory, unescaped, in ascending byte order; none when it is absent. error,
// which may be null, gets 0 or the errno of what failed.
std::vector<std::string> List(const Path &path, int *error = nullptr);

// 0 or an errno value; makes directories as needed, writes text and a newline, and renames.
int WriteText(const Path &path, std::string_view text);
int MakeDirectory(const Path &path);

// 0 or an errno value, ENOENT when absent; a directory goes with all that is in it.
int Remove(const Path &path);

// "/" and "%" of one part to %2F and %25, and back. Unescaping gives nothing for a "%" that starts
// neither.
std::string EscapeName(std::string_view name);
std::optional<std::string> UnescapeName(std::string_view name);

} // namespace HostInventory

#endif
