#include "kltlibs/str.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

char *Str_Asprintf(size_t *length, const char *format, ...)
{
    char *text = nullptr;
    va_list args;
    va_start(args, format);
    const int count = vasprintf(&text, format, args);
    va_end(args);
    if (count < 0) return nullptr;
    if (length != nullptr) *length = static_cast<size_t>(count);
    return text;
}

int Str_Sprintf(char *buffer, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int count = std::vsnprintf(buffer, size, format, args);
    va_end(args);
    if (count >= 0 && static_cast<size_t>(count) < size) return count;
    if (size > 0) buffer[0] = '\0';
    return -1;
}

int Str_Strcpy(char *buffer, const char *text, size_t size)
{
    const size_t length = std::strlen(text);
    if (length < size) {
        std::memcpy(buffer, text, length + 1);
        return 0;
    }
    if (size > 0) buffer[0] = '\0';
    return ENAMETOOLONG;
}
