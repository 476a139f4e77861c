// The whole reading of one file into an LDF_CODING record.
#pragma once

#include <string_view>

#include "veltrix/ldf.h"

namespace veltrix::ldf {

// Decodes path for dev_handle into *record (zeroed first; untouched on failure) and
// registers the allocations with the record (owns_record: LDF_ParserFile's own record).
// Returns 0 or the negative code of LDF_Decode.
int decode(int dev_handle, const char* path, LDF_CODING* record, bool owns_record);

// The same without an adapter (LDF_LoadFile).
int decode_host(const char* path, LDF_CODING* record, bool owns_record);

// The same for LDF text already in memory, checked against dev_handle like a file
// (fuzzing, tools).
int decode_text(int dev_handle, std::string_view raw, LDF_CODING* record, bool owns_record);

}  // namespace veltrix::ldf
