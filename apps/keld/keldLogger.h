// An optional agent that writes whole domains to the diagnostic log.
#ifndef KELD_LOGGER_H
#define KELD_LOGGER_H

// The agent's entry; returns when the agent ends.
void KeldLogger_Start();

#endif
