// Conventions every subcommand follows: "--help" or "-h" anywhere among its arguments
// prints its usage on stdout and exits 0; usage errors go to stderr with exit status 2.
#pragma once

#include <cstring>

namespace veltrix::tools {

inline bool wants_help(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) return true;
  return false;
}

}  // namespace veltrix::tools
