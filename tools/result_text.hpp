// A failed call's code with its meaning, from the shared table tools/result_codes.tsv.
#pragma once

#include <string>
#include <string_view>

namespace veltrix::tools {

// "-4 (no valid reply from the adapter)"; just the number for a code the table lacks.
std::string result_text(std::string_view family, int code);

}  // namespace veltrix::tools
