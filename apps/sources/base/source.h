// A source: one part of what the host says, and what becomes of it.
//
// Each has a file of its own, which ends with its SourceKind; sources.cpp lists them.
#ifndef SOURCES_SOURCE_H
#define SOURCES_SOURCE_H

#include "eventLoop.h"
#include "inventory.h"
#include "row.h"

#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

// What the command line says to sources.
struct SourceOptions {
    std::vector<std::string> nics;  // patterns of interfaces that are NICs, too
    int receiveBytes = 1024 * 1024; // of the kernel's notices that may wait
    std::string root;               // in front of /sys, /proc and /dev; empty but in a trial
    std::string busAddress;         // of the system's D-Bus; empty: the ordinary one
    std::string journal;            // folder with journal files; empty: the system's
};

// What a source works with. Outlives it.
struct Host {
    EventLoop &loop;
    Inventory &inventory;
    Emit emit;
    const SourceOptions &options;
};

// Thrown by a source that cannot run on this host; the text says why.
struct CannotRun : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Works through the host's loop, from its construction to its end. Event loop's thread only.
class Source {
public:
    virtual ~Source() = default;
};

struct SourceKind {
    const char *name;
    const char *needs;
    const char *watches;
    std::span<const Row> rows;                          // all that it may emit
    std::unique_ptr<Source> (*start)(const Host &host); // throws CannotRun
};

extern const SourceKind kLinkSource, kBlockSource, kFileSystemSource, kClockSource, kMemorySource,
    kServiceSource, kJournalSource;

// All of them, in the order in which they are listed and started.
std::span<const SourceKind *const> SourceKinds();

#endif
