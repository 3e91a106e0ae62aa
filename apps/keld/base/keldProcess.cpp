#include "keldProcess.h"

#include <kltlibs/uniquefd.h>

#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

std::string FirstLine(const char *path)
{
    char text[1024];
    const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    const ssize_t length = fd ? read(fd.Get(), text, sizeof text) : -1;
    const std::string_view all(text, static_cast<std::size_t>(length > 0 ? length : 0));
    return std::string(all.substr(0, all.find('\n')));
}

} // namespace

std::uint64_t KeldProcessStart()
{
    const std::string stat = FirstLine("/proc/self/stat");
    std::size_t at = stat.rfind(')'); // behind a name that may hold anything
    for (int field = 2; field < 22 && at != stat.npos; ++field)
        at = stat.find(' ', at + 1);
    return at == stat.npos ? 0 : std::strtoull(stat.c_str() + at, nullptr, 10);
}

std::string KeldBootId() { return FirstLine("/proc/sys/kernel/random/boot_id"); }
