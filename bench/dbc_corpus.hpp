// The larger sample databases the DBC benchmarks run over, and what each must load to.
#pragma once

#include <cstdio>
#include <string>

namespace veltrix::bench {

struct DbcSample {
  std::string path;
  std::string text;  // the file's bytes, read once outside any timed region
  int messages;      // "BO_" lines with a name, dlc and sender, counted from the text
};

// Messages a file declares, counted apart from the parser: lines that start with "BO_ " and
// carry at least the id, name, dlc and sender.
inline int count_message_lines(const std::string& text) {
  int count = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    if (text.compare(pos, 4, "BO_ ") == 0) {
      int words = 0;
      bool in_word = false;
      for (size_t i = pos; i < end; ++i) {
        const bool space = text[i] == ' ' || text[i] == '\r';
        if (!space && !in_word) ++words;
        in_word = !space;
      }
      if (words >= 5) ++count;
    }
    pos = end + 1;
  }
  return count;
}

// The larger sample files, each a benchmark case of its own.
inline constexpr const char* kLargeDbcFiles[] = {"vw_mlb.dbc", "tesla_can.dbc", "abs.dbc",
                                                 "gwm_haval_h6_phev_2024.dbc"};

// The sample file read whole; empty text when it cannot be read.
inline DbcSample dbc_sample(const char* name) {
  DbcSample s{std::string(VELTRIX_CORPUS_DIR) + "/dbc/" + name, {}, 0};
  std::FILE* f = std::fopen(s.path.c_str(), "rb");
  if (!f) return s;
  char chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) s.text.append(chunk, n);
  std::fclose(f);
  s.messages = count_message_lines(s.text);
  return s;
}

}  // namespace veltrix::bench
