#include "diagnostic.h"

#include "kltlibs/ksyslog.h"
#include "kltlibs/ktime.h"

#include <cstdarg>

void KltDiagnose(const char *format, ...)
{
    timeval now{};
    (void)KTime_GetTimeOfDay(&now);
    KSyslogLine line(now);
    va_list args;
    va_start(args, format);
    line.AppendFormatted(format, args);
    va_end(args);
    line.Send();
}
