#include "keldMain.h"

int main(int argc, char **argv) { return KeldMain(argc, argv, false); }
