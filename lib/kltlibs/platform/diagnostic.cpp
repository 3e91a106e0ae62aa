#include "diagnostic.h"

#include <cstdarg>
#include <syslog.h>

void KltDiagnose(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsyslog(LOG_INFO, format, args);
    va_end(args);
}
