// Helpers for the LDF suites: LDF text written to a temporary file and parsed through the
// public interface with a device handle that the registry maps without any adapter.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "ldf/handle.hpp"
#include "veltrix/ldf.h"

namespace ldftest {

// 0xFF0000nn names registry position nn directly; 0x12345678 is registered nowhere.
inline constexpr int kDevice = int(0xFF000000u);
inline constexpr int kUnknownDevice = 0x12345678;

// LDF files written for these tests, kept beside them.
inline std::string fixture(const std::string& name) {
  return std::string(VELTRIX_FIXTURE_DIR) + "/ldf/" + name;
}

// The sample files from outside the repository; suites that read them derive from
// CorpusTest and skip when they are absent.
inline std::string corpus(const std::string& name) {
  return std::string(VELTRIX_CORPUS_DIR) + "/ldf/" + name;
}

// Removes the files written by write_temp when the test binary exits.
struct TempFiles {
  std::vector<std::filesystem::path> paths;
  ~TempFiles() {
    std::error_code ec;
    for (const auto& p : paths) std::filesystem::remove(p, ec);
  }
};

// Writes text to a fresh file in the temporary directory and returns its path.
inline std::string write_temp(const std::string& text) {
  static TempFiles files;
  static int counter = 0;
  auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  auto path = std::filesystem::temp_directory_path() /
              (std::string("ldf_") + info->test_suite_name() + "_" + info->name() + "_" +
               std::to_string(::getpid()) + "_" + std::to_string(counter++) + ".ldf");
  std::ofstream(path, std::ios::binary) << text;
  files.paths.push_back(path);
  return path.string();
}

// Owns a handle parsed without setting up a LIN channel (no adapter here) and releases
// it at scope end.
struct Handle {
  LDF_CODING* h = nullptr;
  explicit Handle(const std::string& path, unsigned char master = 1)
      : h(veltrix::ldf::parse_handle(kDevice, 0, master, path.c_str())) {}
  ~Handle() {
    if (h) LDF_Release(h);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  LDF_CODING* operator->() const { return h; }
};

// The frame of that name, or null.
inline LDF_LIN_FRAME* frame(const LDF_CODING* c, const std::string& name) {
  for (int i = 0; i < c->FrameNum; ++i)
    if (name == c->Frames[i].Name) return &c->Frames[i];
  return nullptr;
}

// Record views used by the file checks.
inline std::vector<std::string> signal_names(const LDF_LIN_FRAME* f) {
  std::vector<std::string> out;
  for (int i = 0; i < f->SignalNum; ++i) out.push_back(f->Signals[i].Name);
  return out;
}

inline std::vector<std::string> schedule_entries(const LDF_LIN_SCH& s) {
  std::vector<std::string> out;
  for (int i = 0; i < s.FrameNum; ++i) out.push_back(s.Frames[i].Frame.Name);
  return out;
}

inline const LDF_NODE_ATTR* node(const LDF_CODING* c, const std::string& name) {
  for (int i = 0; i < c->NodeAttrNum; ++i)
    if (name == c->NodeAttrs[i].Name) return &c->NodeAttrs[i];
  return nullptr;
}

}  // namespace ldftest
