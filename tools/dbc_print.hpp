// Printing frames decoded through a DBC database, shared by the dbc and can commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "dbc/decoder.hpp"

namespace veltrix::tools {

// Loads a database, saying why on stderr when it cannot.
std::unique_ptr<dbc::DBC_Decoder> open_database(const char* path);

// "123" or "18DAF110" for a frame key (bit 31 marks an extended id).
std::string id_text(uint32_t id);

// One indented line with the signals of the message the frame belongs to (multiplexed
// signals only when selected), or a note that no message has that id.
void print_decoded(const dbc::DBC_Decoder& db, uint32_t key, const uint8_t* data, size_t length);

}  // namespace veltrix::tools
