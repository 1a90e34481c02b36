#include "cli/CommandLine.h"

int main(int argc, char** argv) { return velvox::CommandLine::run(argc, argv); }
