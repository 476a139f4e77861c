// A first look at a description file before its parser sees it, so an empty, binary or
// unreadable file fails with a sentence naming the file and the line instead of loading
// as an empty database.
#pragma once

namespace veltrix::tools {

// Prints "veltrix WHO: PATH line N: ..." on stderr and returns false when the file cannot
// be read, is empty, or holds bytes no text file has (NUL and other control characters
// but tab, line feed, form feed and carriage return). kind names the expected format.
bool check_text_file(const char* who, const char* path, const char* kind);

}  // namespace veltrix::tools
