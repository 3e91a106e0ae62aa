// Bounded text, callable from every thread.
#ifndef KLTLIBS_STR_H
#define KLTLIBS_STR_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// The formatted text, the caller's to free with free(), or null without memory. *length, which may
// be null, gets its length.
char *Str_Asprintf(size_t *length, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The characters written into buffer (without the NUL, which is always written), or -1 when size
// bytes are too few, with an empty text left behind.
int Str_Sprintf(char *buffer, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Copies text with its NUL into buffer: 0, or ENAMETOOLONG when size bytes are too few, with an
// empty text left behind.
int Str_Strcpy(char *buffer, const char *text, size_t size);

#ifdef __cplusplus
}
#endif
#endif
