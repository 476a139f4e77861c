// Printing frames decoded through a DBC database, shared by the dbc and can commands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dbc/decoder.hpp"

namespace veltrix::tools {

// Extended multiplexing (SG_MUL_VAL_ lines): which switch, and which of its raw values,
// make a signal present. The library's database keeps only the simple "M"/"m<n>" form.
struct MuxCondition {
  std::string switch_name;
  std::vector<std::pair<uint64_t, uint64_t>> ranges;  // inclusive
};
using MuxTable = std::map<std::pair<uint32_t, std::string>, MuxCondition>;  // (id, signal)

struct Database {
  std::unique_ptr<dbc::DBC_Decoder> db;
  MuxTable mux;
};

// Loads a database (and its SG_MUL_VAL_ lines). On failure prints a sentence naming the
// file and the line on stderr, prefixed "veltrix WHO: ", and returns nullptr. An empty or
// binary file, or one without any DBC statement, is a failure too.
std::shared_ptr<Database> open_database(const char* who, const char* path);

// "123" or "18DAF110" for a frame key (bit 31 marks an extended id).
std::string id_text(uint32_t id);

// Data bytes a message needs: its DLC, mapped to a length for CAN FD DLCs above 8.
size_t message_length(const dbc::DBC_MESSAGE& m);

// Whether the file gives the message a cycle time (GenMsgCycleTime).
bool has_cycle_time(const dbc::DBC_Decoder& db, const dbc::DBC_MESSAGE& m);

// One indented line with the signals present in the frame, or a note that no message has
// that id. A frame shorter than its message is reported, not padded: returns false.
bool print_decoded(const Database& db, uint32_t key, const uint8_t* data, size_t length,
                   std::FILE* out = stdout);

}  // namespace veltrix::tools
