#include "faults.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

Faults::Faults(const std::string &path) : mVariable(kFaultTableVariable + ("=" + path))
{
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    void *mapped = MAP_FAILED;
    if (file >= 0 && ftruncate(file, sizeof(FaultTable)) == 0)
        mapped = mmap(nullptr, sizeof(FaultTable), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (mapped == MAP_FAILED) throw std::system_error(errno, std::generic_category(), path);
    close(file);
    mTable = static_cast<FaultTable *>(mapped);
}

Faults::~Faults()
{
    Disarm();
    munmap(mTable, sizeof(FaultTable));
}

void Faults::Arm(const Fault &fault, Times times)
{
    FaultSlot &slot = SlotOf(fault.seam);
    slot.error = 0;
    const bool path = std::strchr(fault.of, '/') != nullptr;
    std::snprintf(slot.thread.data(), slot.thread.size(), "%s", path ? "" : fault.of);
    std::snprintf(slot.path.data(), slot.path.size(), "%s", path ? fault.of : "");
    slot.size = fault.size;
    slot.passes = fault.nth - 1;
    slot.failures = times == Times::Once ? 1 : std::numeric_limits<std::int64_t>::max();
    slot.failed = 0;
    slot.error.store(fault.error, std::memory_order_release);
}

void Faults::Disarm()
{
    for (FaultSlot &slot : *mTable)
        slot.error = 0;
}

std::int64_t Faults::Failed(Seam seam) const { return SlotOf(seam).failed; }
