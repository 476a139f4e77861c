// Conventions every subcommand follows: "--help" or "-h" anywhere among its arguments
// prints its usage on stdout and exits 0; usage errors go to stderr with exit status 2.
#pragma once

#include <cstdio>
#include <cstring>

namespace veltrix::tools {

inline bool wants_help(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) return true;
  return false;
}

// When help is asked for, prints the usage on stdout and answers true: the command then
// exits 0 without touching an adapter or reading any other argument.
inline bool answered_help(int argc, char** argv, void (*usage)(std::FILE* out)) {
  if (!wants_help(argc, argv)) return false;
  usage(stdout);
  return true;
}

}  // namespace veltrix::tools
