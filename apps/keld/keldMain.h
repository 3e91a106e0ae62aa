// The daemon, from its options to its exit status.
#ifndef KELD_MAIN_H
#define KELD_MAIN_H

// Runs the daemon on the calling thread until a signal or a fatal failure ends it, and returns the
// exit status. Ends the process itself, with status 0, when an option asks for the usage.
// optionalAgents adds the logger and the self-test, which the shipped daemon never runs. Once a process.
int KeldMain(int argc, char **argv, bool optionalAgents);

#endif
