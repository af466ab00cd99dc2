#include "image/pdf/poppler_backend.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/log.h"
#include "core/machine_failure.h"
#include "core/platform/child_process.h"
#include "core/platform/file.h"
#include "core/platform/paths.h"
#include "core/text.h"
#include "image/pdf/page_tiff.h"
#include "image/pdf/pdf_page_size.h"

namespace nvo {
namespace {

constexpr std::uint64_t kMaxInfoBytes = 1 << 20;
constexpr std::uint64_t kBaseMemory = std::uint64_t{2} << 30;  // the program, its fonts, the file's objects
constexpr std::uint64_t kRastersInMemory = 4;                  // the page and nested transparency groups
constexpr std::uint32_t kMaxTileSide = 32'000;                 // cairo's surfaces end at 32767 pixels
constexpr std::size_t kMaxTextBytes = 600;
constexpr double kPointsPerInch = 72.0;
constexpr int kNotRunStatus = 126;  // from here on; Poppler's own end with 99
constexpr int kSignalStatus = 128;  // as shells count a death by signal

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// One operation on one file; the texts of its failures name both.
struct Task {
  const char* operation;
  const PdfRequest& request;

  /// For what Poppler or the system reports.
  template <class Exception = std::runtime_error>
  [[noreturn]] void fail(const std::string& text, int status) const {
    char hexadecimal[16];
    std::snprintf(hexadecimal, sizeof hexadecimal, "%X", static_cast<unsigned>(status));
    throw Exception(std::string("PdfRenderer: failed to ") + operation + " PDF '" + request.path +
                    "': " + text + " (0x" + hexadecimal + ")");
  }
};

/// Lines that a program wrote, in one printable line. Of a long text the end: there stands what made it give
/// up.
std::string one_line(std::string_view text) {
  text = trim(text);
  if (text.size() > kMaxTextBytes) {
    text.remove_prefix(text.size() - kMaxTextBytes);
    text.remove_prefix(std::min(text.find('\n') + 1, text.size()));
  }
  std::string line;
  for (const char c : text) {
    if (c == '\n')
      line += "; ";
    else if (static_cast<unsigned char>(c) >= ' ' && c != '\x7F')
      line += c;
  }
  return line;
}

template <class Act>
void for_each_line(std::string_view text, Act act) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    act(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

/// The programs' own lines for a shortage of memory. They end in several ways after it, at times well.
bool tells_of_memory(std::string_view diagnostics) {
  static constexpr std::string_view kBeginnings[] = {
      "Out of memory", "cairo error: out of memory", "Internal Error: cairo context error: out of memory",
      "terminate called after throwing an instance of 'std::bad_alloc'"};
  bool found = false;
  for_each_line(diagnostics, [&](std::string_view line) {
    for (const std::string_view beginning : kBeginnings) found |= line.starts_with(beginning);
  });
  return found;
}

/// Runs one of Poppler's programs, which has to be installed, and fails for what is no fault of the file.
platform::ChildResult run_program(const Task& task, const std::string& program,
                                  std::vector<std::string> arguments, const platform::ChildLimits& limits,
                                  milliseconds stated_time) {
  const std::string path = platform::find_program(program);
  if (path.empty()) task.fail<MachineFailure>("Poppler's program " + program + " is not installed", ENOENT);
  arguments.insert(arguments.begin(), path);
  platform::ChildResult result = platform::run_child(arguments, limits);

  const std::string said = one_line(result.diagnostics);
  const std::string name = said.empty() ? program : said + "; " + program;
  switch (result.end) {
    case platform::ChildEnd::not_started:
      task.fail<MachineFailure>(program + " cannot be started: " + platform::error_text(result.code),
                                result.code);
    case platform::ChildEnd::signalled:
      task.fail<MachineFailure>(name + " was ended by signal " + std::to_string(result.code),
                                kSignalStatus + result.code);
    case platform::ChildEnd::timed_out:
      task.fail<PdfTimeout>(name + " took longer than " + std::to_string(stated_time.count()) + " ms",
                            ETIMEDOUT);
    case platform::ChildEnd::exited:
    case platform::ChildEnd::too_much_output:
      break;
  }
  if (tells_of_memory(result.diagnostics)) task.fail<MachineFailure>(name + " is out of memory", ENOMEM);
  // As the loader does for want of a library, and whatever stands in the program's place.
  if (result.end == platform::ChildEnd::exited && result.code >= kNotRunStatus)
    task.fail<MachineFailure>(name + " cannot be run", result.code);
  return result;
}

/// The fault of a file with which a program did not end well.
[[noreturn]] void fail_with_result(const Task& task, const std::string& program,
                                   const platform::ChildResult& result) {
  const std::string said = one_line(result.diagnostics);
  if (result.end == platform::ChildEnd::too_much_output)
    task.fail((said.empty() ? program : said + "; " + program) + " wrote more than expected", EFBIG);
  task.fail(said.empty() ? program + " ended with code " + std::to_string(result.code) : said, result.code);
}

bool has_succeeded(const platform::ChildResult& result) {
  return result.end == platform::ChildEnd::exited && result.code == 0;
}

/// An absolute path cannot be taken for an option or for the name of a stream.
std::string absolute_path(const PdfRequest& request) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(platform::to_path(request.path), error);
  return error ? request.path : platform::to_utf8(absolute);
}

/// Counted from 1, as the programs do. Pages beyond what they can count don't exist either.
std::string page_number(const PdfRequest& request) {
  constexpr std::uint64_t last = std::numeric_limits<int>::max();
  return std::to_string(std::min(std::uint64_t{request.page_index} + 1, last));
}

template <class Number>
std::optional<Number> leading_number(std::string_view text) {
  text = trim(text);
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() ? std::optional(number) : std::nullopt;
}

/// The text behind `label`, up to the end of the line, where the label stands last. The document's own
/// strings, which come first in the output, cannot pass for what the program says of it.
std::optional<std::string_view> last_value(std::string_view output, const std::string& label) {
  const std::size_t found = output.rfind("\n" + label);
  if (found == std::string_view::npos) return std::nullopt;
  output.remove_prefix(found + 1 + label.size());
  return output.substr(0, output.find('\n'));
}

/// The value of a page's line, as in "Page    7 size:  612 x 792 pts (letter)".
std::optional<std::string_view> page_value(std::string_view output, const std::string& number,
                                           const char* property) {
  const std::string padding(number.size() < 4 ? 4 - number.size() : 0, ' ');
  return last_value(output, "Page " + padding + number + " " + property + ":");
}

/// A page as `pdfinfo` describes it, in points, after its rotation.
struct Geometry {
  std::uint32_t page_count;
  double width, height;
};

std::optional<Geometry> parse_geometry(const std::string& output, const std::string& number) {
  const auto count_text = last_value(output, "Pages:");
  const auto size_text = page_value(output, number, "size");
  const auto rotation_text = page_value(output, number, "rot");
  if (!count_text || !size_text || !rotation_text) return std::nullopt;
  const std::size_t times = size_text->find(" x ");
  if (times == std::string_view::npos) return std::nullopt;
  const auto count = leading_number<std::uint32_t>(*count_text);
  const auto width = leading_number<double>(size_text->substr(0, times));
  const auto height = leading_number<double>(size_text->substr(times + 3));
  const auto rotation = leading_number<int>(*rotation_text);
  if (!count || !width || !height || !rotation) return std::nullopt;
  Geometry geometry{*count, *width, *height};
  if (*rotation % 180 != 0) std::swap(geometry.width, geometry.height);
  return geometry;
}

/// `pdfinfo` does not describe a page that isn't there; it tells the number of the last one.
std::optional<std::uint32_t> count_of_refusal(std::string_view diagnostics) {
  constexpr std::string_view words = "can not be after the last page (";
  const std::size_t found = diagnostics.rfind(words);
  if (found == std::string_view::npos) return std::nullopt;
  return leading_number<std::uint32_t>(diagnostics.substr(found + words.size()));
}

[[noreturn]] void fail_without_page(const PdfRequest& request, std::uint32_t count) {
  if (count == 0) throw std::runtime_error("PdfRenderer: PDF has no pages: " + request.path);
  throw std::runtime_error("PdfRenderer: page index " + std::to_string(request.page_index) +
                           " is out of range for " + std::to_string(count) + " page PDF: " + request.path);
}

PdfPageInfo describe(const Task& task, milliseconds time) {
  const PdfRequest& request = task.request;
  const std::string number = page_number(request);
  const auto result = run_program(task, "pdfinfo", {"-f", number, "-l", number, absolute_path(request)},
                                  {time, kBaseMemory, kMaxInfoBytes}, time);
  if (!has_succeeded(result)) {
    if (const auto count = count_of_refusal(result.diagnostics)) fail_without_page(request, *count);
    fail_with_result(task, "pdfinfo", result);
  }
  const auto geometry = parse_geometry(result.output, number);
  if (!geometry) task.fail("the output of pdfinfo was not understood", EBADMSG);
  if (request.page_index >= geometry->page_count) fail_without_page(request, geometry->page_count);
  const auto dips = [](double points) { return points * kPdfDips.per_inch / kPointsPerInch; };
  return describe_pdf_page(request, geometry->page_count, dips(geometry->width), dips(geometry->height),
                           kPdfDips);
}

struct TilePlace {
  std::uint32_t x, y, width, height;
};

std::vector<std::string> tile_command(const PdfRequest& request, const PdfPageInfo& page,
                                      const TilePlace& place) {
  std::vector<std::string> command = {"-tiff",   "-tiffcompression", "none",
                                      "-transp", "-singlefile",      "-cropbox"};
  const std::string number = page_number(request);
  command.insert(command.end(), {"-f", number, "-l", number});
  // Without the rectangle the program rounds the page's size up once more, at times to a pixel too many.
  const std::pair<const char*, std::uint32_t> pixels[] = {
      {"-scale-to-x", page.width}, {"-scale-to-y", page.height}, {"-x", place.x}, {"-y", place.y},
      {"-W", place.width},         {"-H", place.height}};
  for (const auto& [option, value] : pixels) command.insert(command.end(), {option, std::to_string(value)});
  command.insert(command.end(), {absolute_path(request), "-"});
  return command;
}

/// What a page may take, over all of its tiles.
struct Allowance {
  milliseconds time;
  Clock::time_point end = Clock::now() + time;

  milliseconds left() const {
    return std::max(std::chrono::duration_cast<milliseconds>(end - Clock::now()), milliseconds(1));
  }
};

/// Puts one tile into its place. The picture comes uncompressed, through a temporary file: to pack it would
/// take the renderer many times the time of drawing it. `said` takes what the program says of it and has
/// not said before.
void render_tile(const Task& task, const PdfPageInfo& page, const TilePlace& place,
                 const Allowance& allowance, const RgbaTile& tile, std::string& said) {
  const std::uint64_t memory = kBaseMemory + kRastersInMemory * rgba_bytes(page);
  const std::uint64_t most_bytes = max_page_tiff_bytes(place.width, place.height);
  PixelSpool spool(task.request.path, most_bytes);
  spool.allocate();
  const auto result = run_program(task, "pdftocairo", tile_command(task.request, page, place),
                                  {allowance.left(), memory, most_bytes, &spool.file()}, allowance.time);
  if (spool.file().size() >= most_bytes)
    throw std::runtime_error("PdfRenderer: rendered PDF image stream is too large");
  if (!has_succeeded(result)) fail_with_result(task, "pdftocairo", result);
  if (spool.file().size() == 0)
    throw std::runtime_error("PdfRenderer: PDF renderer returned an empty image stream");
  if (said.find(result.diagnostics) == std::string::npos) said += result.diagnostics;
  if (read_page_tiff(spool, tile)) return;
  const std::string line = one_line(said);
  task.fail<MachineFailure>((line.empty() ? "" : line + "; ") + "the picture of pdftocairo is incomplete",
                            EIO);
}

/// Passes on what was said of a page that was rendered all the same.
void log_diagnostics(const PdfRequest& request, std::string_view said) {
  std::string of_page;
  for_each_line(said, [&](std::string_view line) {
    // The font library would like to keep a list; without one it only takes longer.
    if (line.find("No writable cache directories") == std::string_view::npos) of_page.append(line) += '\n';
  });
  const std::string line = one_line(of_page);
  if (!line.empty())
    log_warn("PDF '", request.path,
             "': the page was rendered, but the renderer complains, and the film may differ from what a "
             "viewer shows: ",
             line);
}

std::uint64_t file_bytes(const PdfRequest& request) {
  std::error_code error;
  const std::uint64_t size = std::filesystem::file_size(platform::to_path(request.path), error);
  return error ? 0 : size;  // such a file will not be read either
}

constexpr std::uint64_t kMiB = 1 << 20;

std::uint64_t bytes_above_small(std::uint64_t bytes) {
  return bytes > kMiB ? bytes - kMiB : 0;
}

}  // namespace

milliseconds poppler_info_time(std::uint64_t file_bytes) {
  constexpr std::uint64_t base = 7'000, of_mib = 500;
  return milliseconds(base + bytes_above_small(file_bytes) * of_mib / kMiB);
}

milliseconds poppler_page_time(std::uint64_t file_bytes, std::uint64_t pixels) {
  constexpr std::uint64_t base = 45'000, most_of_mib = 60'000, of_mib = 2'000, pixels_of_ms = 1'000;
  const std::uint64_t bytes = bytes_above_small(file_bytes);
  return milliseconds(base +
                      std::min(bytes * most_of_mib / kMiB, bytes * of_mib / kMiB + pixels / pixels_of_ms));
}

PdfPageInfo PopplerBackend::probe(const PdfRequest& request) {
  return describe({"probe", request}, std::min(poppler_info_time(file_bytes(request)), longest_));
}

PdfRenderResult PopplerBackend::render(const PdfRequest& request, const PageWatcher& described) {
  const Task task{"render", request};
  const std::uint64_t bytes = file_bytes(request);
  PdfRenderResult result;
  static_cast<PdfPageInfo&>(result) = describe(task, std::min(poppler_info_time(bytes), longest_));
  if (described) described(result);
  result.rgba.resize(rgba_bytes(result));
  const std::size_t stride = rgba_stride(result);
  const Allowance allowance{
      std::min(poppler_page_time(bytes, std::uint64_t{result.width} * result.height), longest_)};
  std::string said;  // each tile gives cause to say the same
  for (std::uint32_t y = 0; y < result.height; y += kMaxTileSide) {
    for (std::uint32_t x = 0; x < result.width; x += kMaxTileSide) {
      const TilePlace place{x, y, std::min(kMaxTileSide, result.width - x),
                            std::min(kMaxTileSide, result.height - y)};
      std::uint8_t* first = result.rgba.data() + y * stride + std::size_t{x} * 4;
      render_tile(task, result, place, allowance, {first, place.width, place.height, stride}, said);
    }
  }
  log_diagnostics(request, said);
  return result;
}

}  // namespace nvo
