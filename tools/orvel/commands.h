// The orvel program's commands. Each takes the arguments after its name and returns the exit
// status; output goes to standard output, diagnostics to standard error.
#pragma once

#include <span>
#include <string_view>

using OrvelArguments = std::span<const std::string_view>;

int orvelVersionCommand(OrvelArguments arguments);
int orvelSettingsCommand(OrvelArguments arguments);
