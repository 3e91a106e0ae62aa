#include "commands.h"

int main(int argc, char **argv) { return RunKeladm(argc, argv); }
