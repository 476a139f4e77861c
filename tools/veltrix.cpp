// veltrix: command-line access to the adapters. One subcommand per cmd_*.cpp file; each
// prints its own usage for "--help".
#include <cstdio>
#include <cstring>

struct Command {
  const char* name;
  int (*run)(int argc, char** argv);
};
#include "command_table.inc"

namespace {

void usage(std::FILE* out) {
  std::fprintf(out, "usage: veltrix COMMAND [ARGS...]\ncommands:");
  for (const Command& c : kCommands) std::fprintf(out, " %s", c.name);
  std::fprintf(
      out,
      "\n'veltrix COMMAND --help' describes a command. Adapters are named by their\n"
      "handle in hex (SERIAL), as 'veltrix scan' lists them; 'veltrix-sim -- veltrix ...'\n"
      "runs any command against virtual adapters.\n");
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage(stderr);
    return 2;
  }
  if (!std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help")) {
    usage(stdout);
    return 0;
  }
  if (!std::strcmp(argv[1], "--version")) {
    std::printf("veltrix %s\n", VELTRIX_VERSION);
    return 0;
  }
  for (const Command& c : kCommands)
    if (std::strcmp(argv[1], c.name) == 0) return c.run(argc - 1, argv + 1);
  std::fprintf(stderr, "veltrix: unknown command '%s' ('veltrix --help' lists the commands).\n",
               argv[1]);
  return 2;
}
