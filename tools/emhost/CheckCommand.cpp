#include "CheckCommand.h"

void AddCheckCommand(CLI::App& /*app*/, int* /*exitCode*/) {}
