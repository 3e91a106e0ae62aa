// An optional agent that checks the whole observation path against a scripted test producer.
#ifndef KELD_TESTCORRELATOR_H
#define KELD_TESTCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldTestDomain;

// The agent's entry. Writes its findings to standard output and ends the whole process with the number
// of failures as its exit status.
void KeldCorrelator_StartTest();

#endif
