#include "tools/prt_command.h"

#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "core/machine_failure.h"
#include "tools/prt_info.h"
#include "tools/prt_preview.h"
#include "tools/prt_reader.h"
#include "tools/prt_slots.h"
#include "tools/prt_verify.h"

namespace nvo {
namespace {

constexpr const char* kExitCodes =
    "Exit codes: 0 all is well, 1 wrong usage, 2 the file is damaged, cannot be read or cannot be written.";

std::string about_text() {
  std::string endings;
  for (const HeadRow& head : print_heads())
    if (endings.find(head.extension) == std::string::npos)
      endings.append(endings.empty() ? "" : ", ").append(head.extension);
  return "Looks into print files of the Hoson board (" + endings + ").\n" + kExitCodes;
}

constexpr const char* kVersion = "nvo_prt " NVO_APP_VERSION " (build " NVO_APP_BUILD_ID ")";

constexpr const char* kMapHelp =
    "Ink of each slot in file order, letters C M Y K W and - for none, as in KCMYWW. "
    "Default: the map of the head that the file seems to be for";

constexpr const char* kChannelHelp =
    "Only this ink: C, M, Y or K as black ink on white paper, W as white on the film";

/// A line with the bytes of `text` as `escape_controls` shows them, for which no memory is needed.
void complain(const char* text, std::ostream& err) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  err << "nvo_prt: ";
  for (; *text != '\0'; ++text) {
    const auto byte = static_cast<unsigned char>(*text);
    if (byte >= ' ' && byte != 0x7F)
      err.put(*text);
    else
      err << "\\x" << kDigits[byte >> 4] << kDigits[byte & 15];
  }
  err << '\n';
}

struct Arguments {
  std::string file, picture, slot_map, channel, film;
  bool json = false;
  std::optional<double> dpi;
  std::vector<double> crop;
};

void add_file(CLI::App& command, Arguments& arguments) {
  command.add_option("FILE", arguments.file, "The print file")->required();
}

void add_slot_map(CLI::App& command, Arguments& arguments) {
  command.add_option("--map", arguments.slot_map, kMapHelp);
}

void add_preview_options(CLI::App& command, Arguments& arguments) {
  command.add_option("PICTURE", arguments.picture, "The PNG file to write")->required();
  command.add_option("--channel", arguments.channel, kChannelHelp);
  command.add_option("--dpi", arguments.dpi,
                     "Pixels per inch of the picture. Default: 1600 pixels on its longer side");
  command.add_option("--film", arguments.film,
                     "Colour behind the inks: #RRGGBB or one of " + color_names() + ". Default: #5A6470");
  command
      .add_option("--crop", arguments.crop,
                  "Only this part: x,y,w,h in inches from the image's top left corner")
      ->delimiter(',')
      ->expected(4);
}

std::vector<std::uint32_t> slot_map_of(const Arguments& arguments, const PrtReader& reader) {
  if (arguments.slot_map.empty()) return default_channel_map(guess_head(reader.header(), reader.path()));
  return parse_slot_map(arguments.slot_map, reader.header().channels);
}

int show_info(const Arguments& arguments, std::ostream& out) {
  PrtReader reader(arguments.file);
  const PrtInfo info = collect_info(reader, slot_map_of(arguments, reader));
  out << (arguments.json ? info_json(info) : info_text(info));
  return kPrtExitWhole;
}

int verify(const Arguments& arguments, std::ostream& out, std::ostream& err) {
  PrtReader reader(arguments.file);
  const std::vector<std::string> damage = find_damage(reader);
  for (const std::string& reason : damage) complain((arguments.file + ": " + reason).c_str(), err);
  if (!damage.empty()) return kPrtExitFailure;
  out << arguments.file << ": whole\n";
  return kPrtExitWhole;
}

int preview(const Arguments& arguments) {
  PreviewOptions options;
  if (!arguments.film.empty()) options.film = parse_color(arguments.film);
  if (!arguments.channel.empty()) options.channel = parse_ink(arguments.channel);
  options.dpi = arguments.dpi;
  if (!arguments.crop.empty())
    options.crop = InchRect{arguments.crop[0], arguments.crop[1], arguments.crop[2], arguments.crop[3]};
  PrtReader reader(arguments.file);
  options.slot_map = slot_map_of(arguments, reader);
  write_preview(reader, options, arguments.picture);
  return kPrtExitWhole;
}

}  // namespace

int run_prt_command(std::span<char* const> argv, std::ostream& out, std::ostream& err) {
  Arguments arguments;
  std::function<int()> command;

  CLI::App app(about_text(), "nvo_prt");
  app.set_version_flag("--version", kVersion);
  app.require_subcommand(1);
  CLI::App& info = *app.add_subcommand("info", "Header, physical size and dots of each level and slot");
  add_file(info, arguments);
  add_slot_map(info, arguments);
  info.add_flag("--json", arguments.json, "Print JSON");
  info.callback([&] { command = [&] { return show_info(arguments, out); }; });

  CLI::App& check = *app.add_subcommand("verify", "Checks header, size and padding of a file");
  add_file(check, arguments);
  check.callback([&] { command = [&] { return verify(arguments, out, err); }; });

  CLI::App& picture = *app.add_subcommand("preview", "Draws the printed film as a PNG");
  add_file(picture, arguments);
  add_preview_options(picture, arguments);
  add_slot_map(picture, arguments);
  picture.callback([&] { command = [&] { return preview(arguments); }; });

  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
    return command();
  } catch (const CLI::ParseError& e) {
    return app.exit(e, out, err) == 0 ? kPrtExitWhole : kPrtExitUsage;
  } catch (const std::invalid_argument& e) {
    complain(e.what(), err);
    return kPrtExitUsage;
  } catch (const std::exception& e) {
    complain(failure_text(e), err);
    return kPrtExitFailure;
  }
}

}  // namespace nvo
