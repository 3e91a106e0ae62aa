// What stands in for the system log: definitions of vsyslog and of its fortified twin.
//
// Each line goes in one write, "<6>" with its priority before it and a newline behind it when it
// brings none, to the descriptor named in KELD_LOG_FD; without one it is dropped. Include it in one
// source file of a program, or of a library that is preloaded into one. It does without <syslog.h>,
// whose fortified form would redefine what is defined here.
#ifndef LAB_VSYSLOGSHIM_H
#define LAB_VSYSLOGSHIM_H

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sys/uio.h>
#include <unistd.h>

namespace VsyslogShim {

constexpr int kFromEnvironment = -2;

// Where lines go; -1 drops them.
inline std::atomic<int> descriptor{kFromEnvironment};

inline int Descriptor()
{
    int fd = descriptor.load();
    if (fd == kFromEnvironment) {
        const char *text = std::getenv("KELD_LOG_FD");
        fd = text == nullptr ? -1 : std::atoi(text);
        descriptor.store(fd);
    }
    return fd;
}

__attribute__((format(printf, 2, 0))) inline void Write(int priority, const char *format, va_list args)
{
    const int fd = Descriptor();
    if (fd < 0) return;
    char prefix[16];
    const int prefixLength = std::snprintf(prefix, sizeof prefix, "<%d>", priority);
    char *line = nullptr;
    const int length = vasprintf(&line, format, args);
    if (length < 0) return;
    const bool ended = length > 0 && line[length - 1] == '\n';
    char newline[] = "\n";
    const iovec pieces[] = {{prefix, static_cast<std::size_t>(prefixLength)},
                            {line, static_cast<std::size_t>(length)},
                            {newline, ended ? 0U : 1U}};
    [[maybe_unused]] const ssize_t written = writev(fd, pieces, 3);
    std::free(line);
}

} // namespace VsyslogShim

extern "C" {

__attribute__((format(printf, 2, 0))) void vsyslog(int priority, const char *format, va_list args);
__attribute__((format(printf, 3, 0))) void __vsyslog_chk(int priority, int flag, const char *format,
                                                         va_list args);

void vsyslog(int priority, const char *format, va_list args) { VsyslogShim::Write(priority, format, args); }

void __vsyslog_chk(int priority, int, const char *format, va_list args)
{
    VsyslogShim::Write(priority, format, args);
}

} // extern "C"

#endif
