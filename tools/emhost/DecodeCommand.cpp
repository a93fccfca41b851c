#include "DecodeCommand.h"

void AddDecodeCommand(CLI::App& /*app*/, int* /*exitCode*/) {}
