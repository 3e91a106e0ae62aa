#include "commands.h"

int main(int argc, char **argv) { return RunRecorder(argc, argv); }
