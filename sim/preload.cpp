// Loaded into any program started by veltrix-sim: builds the virtual adapters before main
// runs. VELTRIX_SIM_ADAPTERS lists them as SERIAL[@PORTPATH][:full] separated by commas
// (serial in hex).
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>

#include "sim/testbed.hpp"

namespace {

__attribute__((constructor)) void veltrix_sim_start() {
  const char* list = std::getenv("VELTRIX_SIM_ADAPTERS");
  if (list == nullptr || *list == '\0') return;
  std::stringstream ss(list);
  std::string item;
  try {
    while (std::getline(ss, item, ',')) {
      if (item.empty()) continue;
      veltrix::sim::Identity id;
      if (auto colon = item.find(':'); colon != std::string::npos) {
        if (item.substr(colon + 1) == "full") id.speed = veltrix::sim::Speed::Full;
        item = item.substr(0, colon);
      }
      std::string port;
      if (auto at = item.find('@'); at != std::string::npos) {
        port = item.substr(at + 1);
        item = item.substr(0, at);
      }
      char* end = nullptr;
      id.serial = uint32_t(std::strtoul(item.c_str(), &end, 16));
      if (end == item.c_str() || *end != '\0') {
        std::fprintf(stderr, "veltrix-sim: bad serial '%s'\n", item.c_str());
        std::exit(2);
      }
      veltrix::sim::Testbed::instance().add_adapter(id, port);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "veltrix-sim: %s\n", e.what());
    std::exit(2);
  }
}

}  // namespace
