// orvel: the command-line client of the library.
#include <cstdio>
#include <string_view>
#include <vector>

#include "commands.h"

namespace {

struct Command {
  std::string_view name;
  std::string_view summary;
  int (*run)(OrvelArguments);
};

constexpr Command kCommands[] = {
    {"version", "print the library version", orvelVersionCommand},
    {"settings", "print the current settings", orvelSettingsCommand},
    {"pins", "print the public-key pins of the certificates in PEM or DER files", orvelPinsCommand},
    {"suffix", "print the public-suffix length and registrable domain of host names", orvelSuffixCommand},
    {"pinning-config", "check a pinning configuration and print it normalised", orvelPinningConfigCommand},
    {"reachability",
     "print whether the internet, a host or an address is reachable (--watch: follow changes)",
     orvelReachabilityCommand},
    {"pin-check", "validate a server's chain against a pinning configuration (see pin-check -h)",
     orvelPinCheckCommand},
    {"get", "fetch a URL: the body to standard output or a file (curl-like options, see get -h)",
     orvelGetCommand},
};

void printUsage(std::FILE* out) {
  std::fprintf(
      out,
      "usage: orvel [COMMAND [ARGUMENTS...]]\n\nWithout a command, prints the version and the settings.\n\n");
  for (const auto& command : kCommands) {
    std::fprintf(out, "  %-12.*s %.*s\n", static_cast<int>(command.name.size()), command.name.data(),
                 static_cast<int>(command.summary.size()), command.summary.data());
  }
}

}  // namespace

int main(int argc, char** argv) {
  orvelDescribeMainBundle();
  std::vector<std::string_view> arguments(argv + 1, argv + argc);
  if (arguments.empty()) {
    int status = orvelVersionCommand({});
    return status != 0 ? status : orvelSettingsCommand({});
  }
  std::string_view name = arguments.front();
  if (name == "-h" || name == "--help" || name == "help") {
    printUsage(stdout);
    return 0;
  }
  if (name == "--version" || name == "-V") name = "version";
  for (const auto& command : kCommands) {
    if (command.name == name) return command.run(OrvelArguments(arguments).subspan(1));
  }
  std::fprintf(stderr, "orvel: unknown command '%.*s' ('orvel -h' lists the commands)\n",
               static_cast<int>(name.size()), name.data());
  return 2;
}
