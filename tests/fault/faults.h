// Lets calls of a daemon fail.
#ifndef TESTS_FAULT_FAULTS_H
#define TESTS_FAULT_FAULTS_H

#include "faultTable.h"

#include <ostream>
#include <string>

struct Fault {
    Seam seam;
    int error;
    const char *of = "";  // of a thread, or with a part of a path, which has a "/" in it
    std::int64_t nth = 1; // the first call that fails, of those that are meant
    std::size_t size = 0; // asking for so many bytes
};

enum class Times { Once, ForEver };
inline std::ostream &operator<<(std::ostream &out, Times times)
{
    return out << (times == Times::Once ? "Once" : "ForEver");
}

// The table of one daemon, in a file that is made at path. One thread.
class Faults {
public:
    explicit Faults(const std::string &path);
    ~Faults();
    Faults(const Faults &) = delete;
    Faults &operator=(const Faults &) = delete;

    // For the daemon's environment.
    const std::string &Variable() const { return mVariable; }

    // From now on; one fault a seam at a time.
    void Arm(const Fault &fault, Times times);
    void Disarm();

    // How often the seam has failed since it was armed last.
    std::int64_t Failed(Seam seam) const;

private:
    FaultSlot &SlotOf(Seam seam) const { return (*mTable)[static_cast<std::size_t>(seam)]; }

    std::string mVariable;
    FaultTable *mTable;
};

#endif
