// veltrix: command-line access to the adapters. One subcommand per cmd_*.cpp file.
#include <cstdio>
#include <cstring>

struct Command {
  const char* name;
  int (*run)(int argc, char** argv);
};
#include "command_table.inc"

namespace {

void usage() {
  std::fprintf(stderr, "usage: veltrix COMMAND [ARGS...]\ncommands:");
  for (const Command& c : kCommands) std::fprintf(stderr, " %s", c.name);
  std::fprintf(stderr, "\n");
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "--help")) {
    usage();
    return argc < 2 ? 2 : 0;
  }
  for (const Command& c : kCommands)
    if (std::strcmp(argv[1], c.name) == 0) return c.run(argc - 1, argv + 1);
  std::fprintf(stderr, "veltrix: unknown command '%s'\n", argv[1]);
  usage();
  return 2;
}
