// The host inventory by names that are checked, so that nobody has to know its files.
#ifndef KELADM_HOSTENTRIES_H
#define KELADM_HOSTENTRIES_H

#include "failure.h"
#include "hostInventory.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

enum class HostValue { Text, Hex, Uuid, Signed, Unsigned, Directory };

// One kind of entry. In the pattern, <number> and <world id> stand for a decimal number, other parts in
// angle brackets for any name.
struct HostEntry {
    std::string_view pattern;
    HostValue value;
    std::uint64_t high; // of an unsigned integer: the highest; of a text: the most characters
    std::string_view meaning;
};

std::span<const HostEntry> HostEntries();

enum class HostVerb { Set, MakeDirectory, Remove };

// A checked change.
struct HostChange {
    HostVerb verb = HostVerb::Set;
    HostInventory::Path path;
    std::string value; // of Set
};

// "net/portgroups/Production" as its parts; a "/" inside a part is written %2F, a "%" %25. Throws Failure.
HostInventory::Path ParseHostName(std::string_view name);
std::string HostName(const HostInventory::Path &path);

// The kind of entry that path names; null when it is none.
const HostEntry *FindHostEntry(const HostInventory::Path &path);

// True for an entry in which the daemon tells what it has done.
bool IsWrittenByDaemon(const HostInventory::Path &path);

// What a value of this kind is, such as "an integer from 0 to 3".
std::string WhatIsRight(const HostEntry &entry);

// True for a directory that holds known entries.
bool IsInnerHostDirectory(const HostInventory::Path &path);

// The kind of entry that path names. Throws Failure, with the entries that come nearest, for any other.
const HostEntry &KnownHostEntry(const HostInventory::Path &path);

// What is wrong with value for an entry of this kind, and what would be right; nothing when it is fine.
std::optional<std::string> CheckHostValue(const HostEntry &entry, std::string_view value);

// Throws Failure for a name that means nothing to the daemon and for a value that does not fit it.
// A directory is an entry that is one, or any that holds known entries. Everything may be removed.
HostChange MakeHostChange(HostVerb verb, std::string_view name, const std::string &value = {});

// Throws Failure.
void ApplyHostChange(const HostChange &change);

// All that is below a directory, depth first, in order: entries, and directories with nothing in them.
// Throws Failure when it cannot be read.
std::vector<HostInventory::Path> HostEntriesBelow(const HostInventory::Path &directory);

// To be thrown where the inventory gave this error.
Failure HostFailure(const HostInventory::Path &path, int error);

#endif
