// Helpers shared by the DBC suites: temporary files and parsing from text.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dbc/decoder.hpp"

namespace veltrix::dbc::test {

// Device handle whose registry position the registry reports without a scan.
constexpr int kDirectDevice = int(0xFF000000u);

// A value table's entries in key order, as a map to compare against.
inline std::map<int32_t, std::string> entries_of(const ValueTable& table) {
  std::map<int32_t, std::string> out;
  for (size_t i = 0; i < table.size(); ++i) out.emplace(table[i].key, std::string(table[i].text));
  EXPECT_EQ(out.size(), table.size()) << "each key once";
  return out;
}

// A name list as strings, to compare against.
inline std::vector<std::string> names_of(const NameList& names) {
  std::vector<std::string> out;
  for (size_t i = 0; i < names.size(); ++i) out.emplace_back(names[i]);
  return out;
}

// DBC files written for these tests, kept beside them.
inline std::string fixture(const std::string& name) {
  return std::string(VELTRIX_FIXTURE_DIR) + "/dbc/" + name;
}

// The sample files from outside the repository (suites reading them skip without them).
inline std::string corpus(const std::string& name) {
  return std::string(VELTRIX_CORPUS_DIR) + "/dbc/" + name;
}

// A file in the temporary directory holding text; removed when the object goes away.
class TempFile {
 public:
  explicit TempFile(const std::string& text) {
    char tmpl[] = "/tmp/veltrix_dbc_XXXXXX";
    int fd = mkstemp(tmpl);
    EXPECT_GE(fd, 0);
    path_ = tmpl;
    EXPECT_EQ(write(fd, text.data(), text.size()), ssize_t(text.size()));
    close(fd);
  }
  ~TempFile() { std::remove(path_.c_str()); }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

inline std::unique_ptr<DBC_Decoder> parse(const std::string& text) {
  ParseFault fault;
  auto db = DBC_Decoder::fromText(text, &fault);
  EXPECT_TRUE(db) << "refused at line " << fault.line << " (" << fault.keyword << ")";
  return db;
}

inline const DBC_SIGNAL& signal_of(const DBC_Decoder& db, size_t message, size_t signal) {
  return db.messages().at(message).signals.at(signal);
}

}  // namespace veltrix::dbc::test
