// Database handles handed out by DBC_ParserFile. A handle names a slot of a process-wide
// table plus that slot's generation, so a released, stale or made-up handle is recognised
// and refused instead of being dereferenced.
#pragma once

#include <memory>

#include "dbc/decoder.hpp"

namespace veltrix::dbc {

// Takes ownership; returns the new handle (never 0), or 0 when the table is full.
long long register_database(std::unique_ptr<DBC_Decoder> db);

// The database of a live handle, or nullptr. Lock-free; it does not allocate.
DBC_Decoder* database_of(long long handle);

// Frees the database; false if the handle was not live.
bool release_database(long long handle);

}  // namespace veltrix::dbc
