// The mounted file systems, as the kernel lists them.
#ifndef SOURCES_MOUNTS_H
#define SOURCES_MOUNTS_H

#include <string>
#include <vector>

struct Mount {
    std::string device; // "8:1", of the file system
    std::string point;
    std::string type;
    std::string source;    // "/dev/sda1"
    bool readOnly = false; // the file system itself, not only this view of it
};

// One for each mounted file system, under the first of its mount points; the lines of
// /proc/self/mountinfo. What is no such line is passed over.
std::vector<Mount> ReadMounts(const std::string &mountInfo);

#endif
