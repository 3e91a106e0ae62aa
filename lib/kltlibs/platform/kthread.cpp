#include "kltlibs/kthread.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <pthread.h>

namespace {

constexpr std::size_t kKernelNameBytes = 16; // with its NUL

thread_local std::array<char, KTHREAD_NAME_BYTES_MAX> ownName;

void CopyCut(char *to, const char *from, std::size_t size)
{
    const std::size_t length = strnlen(from, size - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
}

} // namespace

void KThreadBase_SetName(const char *name)
{
    CopyCut(ownName.data(), name, ownName.size());
    std::array<char, kKernelNameBytes> shown;
    CopyCut(shown.data(), name, shown.size());
    pthread_setname_np(pthread_self(), shown.data());
}

const char *KThreadBase_CurName(void)
{
    return ownName[0] != '\0' ? ownName.data() : program_invocation_short_name;
}
