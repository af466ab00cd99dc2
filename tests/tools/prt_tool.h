#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "output/hoson_writer.h"
#include "tools/prt_command.h"

namespace nvo::test {

struct ToolResult {
  int code = 0;
  std::string out, err;
};

/// Runs `nvo_prt` with these arguments.
inline ToolResult run_tool(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "nvo_prt");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  std::ostringstream out, err;
  const int code = run_prt_command(argv, out, err);
  return {code, out.str(), err.str()};
}

/// A print file of these maps for a head, in the head's default mode unless an id is given.
inline void write_print_file(const std::string& path, std::uint32_t head, const std::vector<DropMap>& maps,
                             const std::string& mode_id = "") {
  const PrintMode* mode = find_print_mode({0, head}, mode_id);
  HosonWriter writer({{0, head}, mode ? *mode : default_print_mode({0, head}), {}});
  writer.begin_stream_write(path, maps[0].width, maps[0].height);
  writer.write_dropmaps_strip(maps, 0);
  writer.end_stream_write();
}

}  // namespace nvo::test
