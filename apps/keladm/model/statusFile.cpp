#include "statusFile.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <kltlibs/uniquefd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <vector>

namespace {

template <std::size_t Size> bool Ends(const char (&text)[Size])
{
    return std::memchr(text, '\0', Size) != nullptr;
}

bool IsKnown(unsigned standing)
{
    const auto pipe = static_cast<unsigned>(KeldStanding::Pipe);
    return standing <= static_cast<unsigned>(KeldStanding::Stops) ||
           (standing >= pipe && standing < pipe + kKeldStatusThreads);
}

// What cannot be so in a file of this version; empty when nothing is.
std::string Fault(const KeldStatusFile &file)
{
    if (file.size != sizeof file) return fmt::format("it says it has {} bytes", file.size);
    if (file.process == 0 || file.process > INT_MAX) return "it names no process";
    if (!Ends(file.boot) || !Ends(file.daemonVersion)) return "a text in its head does not end";
    if ((file.phase & 0xFF) > static_cast<std::uint64_t>(KeldPhase::Ended)) return "its phase is unknown";
    for (std::size_t place = 0; place < kKeldStatusThreads; ++place) {
        const KeldStatusThread &thread = file.threads[place];
        if (!Ends(thread.name)) return fmt::format("the name of thread {} does not end", place);
        if (!IsKnown(StandingCode(thread)))
            return fmt::format("thread {} stands in {}, which is unknown", place, StandingCode(thread));
    }
    return "";
}

// The first bytes of the file as they are at this moment, each word whole.
std::vector<std::byte> Copy(int fd, std::size_t size)
{
    std::vector<std::byte> bytes(size - size % sizeof(std::uint64_t));
    if (bytes.empty()) return bytes;
    void *mapped = mmap(nullptr, bytes.size(), PROT_READ, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) return {};
    auto *words = static_cast<std::uint64_t *>(mapped);
    for (std::size_t at = 0; at < bytes.size(); at += sizeof *words) {
        const std::uint64_t word =
            __atomic_load_n(words++, __ATOMIC_RELAXED); // not written to: no atomic_ref
        std::memcpy(&bytes[at], &word, sizeof word);
    }
    munmap(mapped, bytes.size());
    return bytes;
}

} // namespace

StatusFile DecodeStatusFile(std::span<const std::byte> bytes)
{
    StatusFile read{StatusFile::Kind::Damaged, "", {}};
    KeldStatusFile &file = read.content;
    std::memcpy(&file, bytes.data(), std::min(bytes.size(), sizeof file));
    if (bytes.size() < offsetof(KeldStatusFile, process) ||
        std::memcmp(file.magic, kKeldStatusMagic, sizeof file.magic) != 0) {
        read.problem = "it does not begin as such a file does";
    } else if (file.version != kKeldStatusVersion) {
        read.kind = StatusFile::Kind::OtherVersion;
        read.problem = fmt::format("its layout is version {}, and this keladm knows version {}",
                                   file.version, kKeldStatusVersion);
    } else if (bytes.size() != sizeof file) {
        read.problem = fmt::format("it has {} bytes in place of {}", bytes.size(), sizeof file);
    } else {
        read.problem = Fault(file);
        if (read.problem.empty()) read.kind = StatusFile::Kind::Good;
    }
    return read;
}

StatusFile ReadStatusFile(const std::string &path)
{
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd && errno == ENOENT) return {StatusFile::Kind::Absent, "it is not there", {}};
    struct stat found {};
    if (!fd || fstat(fd.Get(), &found) != 0)
        return {StatusFile::Kind::Damaged, fmt::format("it cannot be read: {}", std::strerror(errno)), {}};
    if (!S_ISREG(found.st_mode)) return {StatusFile::Kind::Damaged, "it is no file", {}};
    const auto size = static_cast<std::size_t>(found.st_size);
    StatusFile read = DecodeStatusFile(Copy(fd.Get(), std::min(size, sizeof(KeldStatusFile))));
    return read;
}
