// What a program tells the service manager that started it (sd_notify's protocol).
#ifndef KLTLIBS_NOTIFY_H
#define KLTLIBS_NOTIFY_H

#ifdef __cplusplus
extern "C" {
#endif

// "READY=1" and the like; nothing where no service manager waits for it. Never waits. Any thread, while
// none changes the environment.
void KltNotify(const char *state);

#ifdef __cplusplus
}
#endif
#endif
