// cli/main.cpp: the program's entry point.
#include "cli/run.h"

int main(int argc, char** argv) { return nurel::run(argc, argv); }
