// Section readers: each turns one or two cut sections of the load state into records
// whose strings and arrays live in the given Storage, and returns the number of records
// read, or -3 when the device of the latest load was not registered. Malformed items are
// skipped by the length and separator rules of each reader.
#pragma once

#include <vector>

#include "ldf/load.hpp"
#include "ldf/storage.hpp"
#include "veltrix/ldf.h"

namespace veltrix::ldf {

int LDF_GetSignalsCoding(const LoadState& st, Storage& mem, std::vector<LDF_SIGNAL_CODING>& out);

int LDF_GetSignalRepresentations(const LoadState& st, Storage& mem,
                                 std::vector<LDF_SIGNAL_REPRESENTATION>& out);

// Signals, then the diagnostic signals, each with the encoding its representation names.
int LDF_GetSignals(const LoadState& st, Storage& mem, const std::vector<LDF_SIGNAL_CODING>& codings,
                   const std::vector<LDF_SIGNAL_REPRESENTATION>& representations,
                   std::vector<LDF_LIN_SIGNAL>& out);

// Frames, then the diagnostic frames, each with copies of its signals.
int LDF_GetFrames(const LoadState& st, Storage& mem, const std::vector<LDF_LIN_SIGNAL>& signals,
                  std::vector<LDF_LIN_FRAME>& out);

int LDF_GetScheduleTables(const LoadState& st, Storage& mem,
                          const std::vector<LDF_LIN_FRAME>& frames, std::vector<LDF_LIN_SCH>& out);

// 1 and *out set when the Nodes section is not empty, else 0 and *out null.
int LDF_GetNodes(const LoadState& st, Storage& mem, LDF_LIN_NODE** out);

int LDF_GetNodeAttributes(const LoadState& st, Storage& mem, std::vector<LDF_NODE_ATTR>& out);

}  // namespace veltrix::ldf
