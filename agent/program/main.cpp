#include "agent/program/program.h"

int main(int argc, char** argv) { return zelta::agent::runProgram(argc, argv); }
