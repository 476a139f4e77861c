#include "tools/result_text.hpp"

namespace veltrix::tools {
namespace {

struct ResultCode {
  const char* family;
  int code;
  const char* meaning;
};
#include "result_codes.inc"

}  // namespace

std::string result_text(std::string_view family, int code) {
  std::string s = std::to_string(code);
  for (const ResultCode& r : kResultCodes)
    if (family == r.family && code == r.code) return s + " (" + r.meaning + ")";
  return s;
}

}  // namespace veltrix::tools
