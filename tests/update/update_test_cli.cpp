// The program with an update service out of a file, so that it can run against a server of the test.

#include <cstdlib>
#include <fstream>

#include <nlohmann/json.hpp>

#include "app/run.h"
#include "core/platform/file.h"
#include "core/platform/last_resort.h"

int main(int argc, char** argv) {
  const char* record_path = std::getenv("NVO_UPDATE_TEST_SERVICE");
  if (argc < 2 || !record_path) return nvo::kExitUsage;
  const auto record = nlohmann::json::parse(std::ifstream(record_path));
  const nvo::UpdateService service{
      record.at("origins"), record.at("download_hosts"), record.at("public_key"), record.at("ca_file"), {}};
  nvo::platform::install_last_resort();
  nvo::platform::install_termination_cleanup();
  return nvo::run(argv[1], argc > 2 ? argv[2] : "", service);
}
