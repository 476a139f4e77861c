// Loading an LDF file: read it, clean it (comments and white space out) and cut it into
// its top-level sections. The cleaned text and the sections are process-wide and each
// load replaces them, so a whole decode runs under load_mutex(); the records built from
// them are copies and outlive the next load.
#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace veltrix::ldf {

// The sections read, in the order they are cut.
enum class Section {
  EncodingTypes,      // Signal_encoding_types
  Representation,     // Signal_representation
  Frames,             // Frames
  Signals,            // Signals
  ScheduleTables,     // Schedule_tables
  NodeAttributes,     // Node_attributes
  Nodes,              // Nodes
  DiagnosticSignals,  // Diagnostic_signals
  DiagnosticFrames,   // Diagnostic_frames
  Count
};

inline constexpr std::array<std::string_view, size_t(Section::Count)> kSectionKeywords = {
    "Signal_encoding_types", "Signal_representation", "Frames", "Signals",
    "Schedule_tables",       "Node_attributes",       "Nodes",  "Diagnostic_signals",
    "Diagnostic_frames"};

// A section holds at most this much text; a longer one fails the load (-5) rather than
// being cut mid-item.
inline constexpr size_t kMaxSectionBytes = 64 * 1024;

// Files beyond this are not LDF text (a device node or a wrong path): refused with -4
// before they exhaust memory.
inline constexpr size_t kMaxFileBytes = 16 * 1024 * 1024;

struct LoadState {
  std::string text;  // cleaned text of the last load
  std::array<std::string, size_t(Section::Count)> sections;

  std::string_view section(Section s) const { return sections[size_t(s)]; }
};

// Serialises loads: hold it from LDF_Init to the last section reader.
std::mutex& load_mutex();
// The process-wide load state; guarded by load_mutex().
LoadState& load_state();

// Whether the device given to the latest LDF_Init was registered. Every reader and the
// frame packer check it first (-3), whichever file their data came from.
bool device_registered();

// Drops block comments, then line comments, then, outside double quotes, everything but
// 0x21..0x7E and, inside them, everything but 0x20..0x7E.
std::string clean_text(std::string_view raw);

// Copies the braced body that follows the first "keyword{" of text (braces included,
// nesting counted; to the end of text if it never closes) into section; empty when the
// keyword is missing. Returns 0, -2 text shorter than keyword, -3 no device, -5 the body
// exceeds kMaxSectionBytes (section left empty).
int LDF_GetAttributeStr(std::string_view text, std::string_view keyword, std::string& section);

// Records in the device flag whether dev_handle is registered. Returns 0 or -3.
int check_device(int dev_handle);

// Cleans raw file text into state.text and cuts all sections. Returns 0 or -5 (a section
// too long). The device flag is not touched.
int load_text(LoadState& state, std::string_view raw);

// Reads, cleans and cuts the file like LDF_Init for a load that needs no adapter; such a
// load counts as registered for the readers and the packer. Returns 0, -1, -4 or -5.
int LDF_InitHost(LoadState& state, const char* path);

// Checks the device (usb_list_get_index), reads and cleans the file and cuts all sections
// into state. Returns 0, -1 file cannot be opened or read, -3 device not registered,
// -4 file larger than kMaxFileBytes, -5 a section too long.
int LDF_Init(LoadState& state, int dev_handle, const char* path);

}  // namespace veltrix::ldf
