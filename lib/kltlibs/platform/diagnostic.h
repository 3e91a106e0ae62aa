// The platform's own lines in the system log.
#ifndef KLTLIBS_SRC_DIAGNOSTIC_H
#define KLTLIBS_SRC_DIAGNOSTIC_H

void KltDiagnose(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
