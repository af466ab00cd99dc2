#include <algorithm>
#include <csignal>
#include <filesystem>
#include <map>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>

#include "app/app_version.h"
#include "support/child_process.h"
#include "support/print_file.h"
#include "support/temp_dir.h"
#include "support/tiff_file.h"

namespace nvo {
namespace {

/// The program with a terminal of 40 columns for its standard error.
struct TerminalRun {
  TerminalRun(const std::string& input, const std::string& progress) {
    winsize window{24, 40, 0, 0};
    int program_side = -1;
    if (::openpty(&screen, &program_side, nullptr, nullptr, &window) != 0)
      throw std::runtime_error("no terminal");
    const std::map<std::string, std::string> environment = {{"NVO_RIP_PROGRESS", progress}};
    program.emplace(std::vector<std::string>{NVO_RIP_PROGRAM, input}, environment, program_side);
    ::close(program_side);  // so that the program's end is that of its output
  }
  ~TerminalRun() { ::close(screen); }
  /// What has been shown since the last call, waited for; empty once the program has ended and all is read.
  std::string read() const {
    char bytes[4096];
    const ssize_t got = ::read(screen, bytes, sizeof bytes);
    return {bytes, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
  }
  std::string read_to_end() const {
    std::string all;
    for (std::string part = read(); !part.empty(); part = read()) all += part;
    return all;
  }

  int screen = -1;
  std::optional<test::ChildProcess> program;
};

/// A folder with inputs in which the real program runs.
class CommandLine : public testing::Test {
 protected:
  CommandLine() { ::setenv("XDG_CONFIG_HOME", config.path().c_str(), 1); }

  static test::Outcome rip(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), NVO_RIP_PROGRAM);
    return test::run_to_end(arguments, {{"NVO_RIP_PROGRESS", "1"}});
  }
  std::string art(const std::string& name, std::uint32_t width, std::uint32_t height) const {
    test::write_tiff(dir.file(name), test::cmykw_tiff(width, height, {}));
    return dir.file(name);
  }

  test::TempDir dir, config;
};

TEST_F(CommandLine, ArgumentsAreReadInTheirOrder) {
  const std::string version =
      R"({"version":"0.1.7","build_id":"1071","channel":"stable","platform":"windows","arch":"x64"})"
      "\n";
  const std::string usage =
      "NVO RIP CLI   Hoson i3200\n\nUsage: nvo_rip <input_image> [output.prt|output.prn]\n\n"
      "For nesting: use nvo_rip_gui.exe\n";
  const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
      {{}, 1, usage, ""},
      {{"--print-app-version-json", "extra"}, 0, version, ""},
      {{"--version"}, 0, "nvo_rip 0.1.7 (build 1071, stable)\n", ""},
      {{""}, 1, "", "Invalid input path encoding.\n"},
      {{"bad\xff.tif"}, 1, "", "Invalid input path encoding.\n"},
      {{"a.tif", ""}, 1, "", "Invalid output path encoding.\n"},
      {{"a.tif", "\xC0\xAF"}, 1, "", "Invalid output path encoding.\n"},
  };
  for (const auto& [arguments, code, out, err] : cases) {
    const test::Outcome outcome = rip(arguments);
    EXPECT_EQ(std::tuple(outcome.code, outcome.out, outcome.err), std::tuple(code, out, err));
  }
  for (const char* help : {"--help", "-h"}) {
    const test::Outcome outcome = rip({help});
    EXPECT_EQ(std::pair(outcome.code, outcome.err), std::pair(0, std::string()));
    EXPECT_THAT(outcome.out, testing::StartsWith("nvo_rip turns one image into one print file"));
    EXPECT_EQ(rip({help, dir.file("o.prt")}).code, 2) << "an input like any other";
  }
  EXPECT_EQ(rip({dir.file("--PRINT-APP-VERSION-JSON")}).code, 2) << "taken as an input";
  EXPECT_THAT(version_json({"a\"b", "c\\d", "\t\x01", "", ""}),
              testing::StartsWith(R"({"version":"a\"b","build_id":"c\\d","channel":"\t\u0001",)"));
}

TEST_F(CommandLine, AGoodJobLeavesOneWholeFileTheSameEveryTime) {
  const std::string input = art("My Art.tif", 60, 40);
  const test::Outcome first = rip({input});
  EXPECT_EQ(first.code, 0) << first.out;
  for (const std::string& line :
       {std::string("NVO RIP CLI"), "Input:  " + input, "Done: " + dir.file("My_Art.prt")})
    EXPECT_THAT(first.out, testing::HasSubstr("[INFO ] " + line + "\n"));
  const std::string bytes = test::read_all(dir.file("My_Art.prt"));
  EXPECT_TRUE(test::PrintFile(bytes).is_whole);
  EXPECT_EQ(rip({input}).code, 0) << "a derived target is replaced";
  EXPECT_EQ(test::read_all(dir.file("My_Art.prt")), bytes);

  const test::Outcome placed = rip({input, dir.file("new/dir/o.prt"), "ignored", "arguments"});
  EXPECT_EQ(placed.code, 0);
  EXPECT_THAT(placed.out,
              testing::StartsWith("Output path info: explicit output parent directory created.\n"));
  EXPECT_EQ(test::read_all(dir.file("new/dir/o.prt")), bytes);
  EXPECT_EQ(rip({input, dir.file("--print-app-version-json")}).code, 0) << "an output path like any other";
}

TEST_F(CommandLine, FailuresHaveTheirTextAndCodeAndLeaveNothing) {
  const std::string good = art("good.tif", 40, 600);
  const std::string bytes = test::read_all(good);
  test::write_all(dir.file("cut.tif"), bytes.substr(0, bytes.size() / 2));
  test::write_all(dir.file("text.xyz"), "x");
  test::write_all(dir.file("there.prt"), "older");
  const auto before = dir.names();
  const std::string fatal = "[ERROR] Fatal: ";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{dir.file("none.tif")}, fatal + "TiffReader: cannot open '" + dir.file("none.tif") + "'"},
      {{dir.file("cut.tif")}, fatal + "TiffReader: cannot open '" + dir.file("cut.tif") + "'"},
      {{dir.file("text.xyz")},
       fatal + "ImageMetaProbe: unsupported image extension: " + dir.file("text.xyz")},
      {{good, dir.file("there.prt")}, "Output path error: Explicit output target already exists.\n"},
      {{good, "/proc/nowhere.prt"},
       fatal + "HosonWriter::begin_stream_write: cannot open output file: /proc/nowhere.prt"},
  };
  for (const auto& [arguments, text] : cases) {
    const test::Outcome outcome = rip(arguments);
    EXPECT_EQ(outcome.code, 2) << arguments.back();
    EXPECT_THAT(text.starts_with(fatal) ? outcome.out : outcome.err, testing::HasSubstr(text));
    const std::string said = text.starts_with(fatal) ? text.substr(fatal.find("Fatal")) + "\n" : text;
    EXPECT_EQ(outcome.err, said);
    EXPECT_EQ(dir.names(), before) << arguments.back();
  }
  EXPECT_EQ(test::read_all(dir.file("there.prt")), "older");
}

TEST_F(CommandLine, StandardStreamsMayBeClosedFullOrOne) {
  const std::string input = art("art.tif", 60, 40), print = dir.file("art.prt");
  ASSERT_EQ(rip({input}).code, 0);
  const std::string bytes = test::read_all(print);
  const std::string rip_of = "exec " NVO_RIP_PROGRAM " ", query = "--print-app-version-json";
  const std::pair<std::string, int> cases[] = {
      {input + " <&-", 0},          {input + " >&-", 0},        {input + " 2>&-", 0},
      {input + " <&- >&- 2>&-", 0}, {input + " >/dev/full", 0}, {query + " >&-", 2},
      {query + " >/dev/full", 2},   {"none.tif 2>&1", 2},
  };
  for (const auto& [arguments, code] : cases) {
    std::filesystem::remove(print);
    const test::Outcome outcome = test::run_to_end({"/bin/sh", "-c", rip_of + arguments}, {});
    EXPECT_EQ(outcome.code, code) << arguments;
    EXPECT_EQ(test::read_all(print), code == 0 ? bytes : "") << arguments;
    if (arguments.starts_with(query)) {
      EXPECT_THAT(outcome.err, testing::StartsWith("nvo_rip: cannot write to standard output: "));
    } else if (code != 0) {
      EXPECT_EQ(outcome.out.find("Fatal: "), outcome.out.rfind("Fatal: ")) << "not said twice";
    }
  }
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"art.tif"})) << "no temporary file";
}

TEST_F(CommandLine, ProgressIsForThoseWhoAskOnATerminal) {
  const std::string input = art("art.tif", 60, 40);
  const auto lines = [](const std::string& log) { return std::count(log.begin(), log.end(), '\n'); };
  const test::Outcome without_terminal = rip({input});
  EXPECT_EQ(without_terminal.err, "");
  const std::string bytes = test::read_all(dir.file("art.prt"));

  TerminalRun watched(input, "1");
  const std::string shown = watched.read_to_end();
  EXPECT_EQ(watched.program->wait(), 0);
  EXPECT_EQ(lines(watched.program->out()), lines(without_terminal.out));
  EXPECT_EQ(test::read_all(dir.file("art.prt")), bytes);
  EXPECT_THAT(shown, testing::StartsWith("\rStreaming strip 1/1: 0 done, 0 %"));
  EXPECT_THAT(shown, testing::ContainsRegex("\rFinalizing .prt: 1 done, 97 %, [0-9]+ r"));
  EXPECT_THAT(shown, testing::ContainsRegex("\r +\r$")) << "gone at the end";
  EXPECT_EQ(TerminalRun(input, "0").read_to_end(), "");

  const test::Outcome fed = test::run_to_end({NVO_RIP_PROGRAM, input}, {{"NVO_RIP_PROGRESS", "JSON"}});
  EXPECT_EQ(lines(fed.out), lines(without_terminal.out));
  EXPECT_THAT(fed.err,
              testing::StartsWith(R"({"stage":0,"stages":1,"percent":0.0,"message":"Streaming strip 1/1")"));
  EXPECT_THAT(fed.err, testing::HasSubstr("\n{\"stage\":1,\"stages\":1,\"percent\":100.0,"));
  EXPECT_THAT(TerminalRun(input, "json").read_to_end(), testing::StartsWith("{"));
}

#ifdef NVO_FAULT_PRELOAD
// Every thread of the job is refused in turn, alone and with all that follow.
TEST_F(CommandLine, AShortageOfThreadsCostsNothingButTime) {
  const std::string input = art("art.tif", 300, 1100);
  const auto run = [&](const std::string& fault) {
    return test::run_to_end({NVO_RIP_PROGRAM, input}, {{"LD_PRELOAD", NVO_FAULT_PRELOAD},
                                                       {"NVO_FAULT", fault},
                                                       {"NVO_FAULT_COUNT", dir.file("count")},
                                                       {"NVO_RIP_PARALLEL_CHANNELS", "1"},
                                                       {"NVO_RIP_PARALLEL_ROWS", "1"}});
  };
  ASSERT_EQ(run("thread:0").code, 0);
  const std::string bytes = test::read_all(dir.file("art.prt"));
  const int threads = std::stoi(test::read_all(dir.file("count")));
  ASSERT_GT(threads, 4);
  int told = 0;
  for (int n = 1; n <= threads; ++n) {
    for (const char* how : {":11", ":11:for-good"}) {
      const test::Outcome outcome = run("thread:" + std::to_string(n) + how);
      EXPECT_EQ(outcome.code, 0) << n << how << outcome.out;
      EXPECT_TRUE(test::read_all(dir.file("art.prt")) == bytes) << n << how;
      const std::string said = "gives the job no more threads";
      EXPECT_EQ(outcome.out.find(said), outcome.out.rfind(said)) << "once";
      told += outcome.out.find(said) != std::string::npos ? 1 : 0;
    }
  }
  EXPECT_GE(told, threads) << "not every run asks for as many";
}
#endif

TEST_F(CommandLine, TerminationInTheMiddleKeepsTheOldFileAndEndsTheLineShown) {
  const std::string input = art("long.tif", 1200, 6000);
  test::write_all(dir.file("long.prt"), "older");
  for (const int number : {SIGINT, SIGTERM}) {
    TerminalRun run(input, "1");
    EXPECT_THAT(run.read(), testing::StartsWith("\rStreaming"));
    while (dir.names().size() < 3) std::this_thread::yield();  // until the temporary file stands
    ::kill(run.program->id(), number);
    // No line stands while one of the log is printed.
    EXPECT_THAT(run.read_to_end(), testing::AnyOf(testing::EndsWith("\r\n"), testing::EndsWith(" \r")));
    EXPECT_EQ(run.program->wait(), -number);
    EXPECT_EQ(dir.names(), (std::vector<std::string>{"long.prt", "long.tif"}));
    EXPECT_TRUE(test::read_all(dir.file("long.prt")) == "older");
  }
}

TEST_F(CommandLine, TheLogTellsWhatTheJobIsBeforeItIsPrinted) {
  std::filesystem::create_directories(config.file("NVO_RIP"));
  test::TiffFile rgba;
  rgba.samples = 4, rgba.photometric = PHOTOMETRIC_RGB, rgba.extra_samples = {EXTRASAMPLE_UNASSALPHA};
  rgba.width = 60, rgba.height = 40, rgba.x_resolution = rgba.y_resolution = 240.0f;
  test::write_tiff(dir.file("rgba.tif"), rgba);
  const std::tuple<std::string, std::string, std::vector<std::string>> cases[] = {
      {art("white.tif", 60, 40),
       "{}",
       {"head i3200, mode 720x1800_6pass (720 x 1800 dpi, 6 passes), slots K C M Y W W",
        "sheet of 5.4 x 3.7 mm (0.213 x 0.147 in)",
        "art of 60 x 40 px on 5.1 x 3.4 mm (0.2 x 0.133 in), 300 dpi as the file states",
        "colour: CMYK as it stands in the file, without a profile",
        "white: from the file's white channel 'White'",
        "white choke: adaptive, 1.5 px at 300 dpi (0.127 mm), features up to 3 dots keep their white, light "
        "areas from L* 85 keep theirs",
        "white ink limit: off", "resampling: colour smooth, white smooth"}},
      {dir.file("rgba.tif"),
       R"({"print_head":"i1600","white_choke_algorithm":"production","white_choke_amount_px_at_300dpi":1,
           "white_resampling":"hard","white_ink_limit_enabled":true,
           "icc":{"enabled":true,"output_profile":"/none.icc","intent":0,"use_bpc":false}})",
       {"head i1600, mode i1600_720x1800_observed (720 x 1800 dpi, 12 passes), slots K C M Y W Off",
        "sheet of 6.5 x 4.4 mm (0.257 x 0.173 in)",
        "art of 60 x 40 px on 6.4 x 4.2 mm (0.25 x 0.167 in), 240 dpi as the file states",
        "colour: RGB to CMYK by the profiles sRGB -> '/none.icc', perceptual, black point compensation off",
        "white: from the file's transparency; it has no white channel",
        "white choke: production, 1 px at 300 dpi (0.085 mm)",
        "white ink limit: 300 % for all inks of a pixel, full white counts 400 %, 10 % stay",
        "resampling: colour smooth in linear light, white hard"}},
      {dir.file("white.tif"),
       R"({"output_channel_map":["K","C","M","Y","Off","Off"],"white_choke_enabled":false,
           "print_mode_id":"360x1200_2pass"})",
       {"head i3200, mode 360x1200_2pass (360 x 1200 dpi, 2 passes), slots K C M Y Off Off",
        "sheet of 5.1 x 3.4 mm (0.2 x 0.133 in)",
        "art of 60 x 40 px on 5.1 x 3.4 mm (0.2 x 0.133 in), 300 dpi as the file states",
        "colour: CMYK as it stands in the file, without a profile", "white: not printed, no slot prints W",
        "white choke: off", "white ink limit: off", "resampling: colour smooth, white smooth"}},
  };
  for (const auto& [input, settings, lines] : cases) {
    test::write_all(config.file("NVO_RIP/job_settings.json"), settings);
    const std::string out = rip({input}).out;
    std::string block;
    for (std::size_t at = 0; (at = out.find("] Job: ", at)) != std::string::npos; ++at)
      block += out.substr(at + 7, out.find('\n', at) - at - 6);
    std::string expected;
    for (const std::string& line : lines) expected += line + "\n";
    EXPECT_EQ(block, expected);
    EXPECT_GT(out.find("] Job: "), out.find("StreamRip: streaming mode enabled"));
    EXPECT_LT(out.find("] Job: "), out.find("StreamRip: complete."));
  }
}

TEST_F(CommandLine, SettingsOutOfReachAreToldOnceAndNeverWaitedFor) {
  const std::string input = art("art.tif", 12, 9), folder = config.file("NVO_RIP");
  const auto count = [](const std::string& out, const std::string& text) {
    std::size_t found = 0;
    for (std::size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) ++found;
    return found;
  };
  std::filesystem::create_directories(folder);
  ASSERT_EQ(::mkfifo((folder + "/settings.json").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", folder + "/job_settings.json");
  std::filesystem::create_symlink("icc_settings.json", folder + "/icc_settings.json");
  const test::Outcome odd_files = rip({input});
  EXPECT_EQ(odd_files.code, 0);
  for (const char* text : {"[ERROR] RipSettings: falling back", "[ERROR] JobSettings: falling back",
                           "/icc_settings.json': Too many levels of symbolic links; this job prints without"})
    EXPECT_EQ(count(odd_files.out, text), 1u) << text << odd_files.out;

  std::filesystem::remove_all(folder);
  std::filesystem::create_symlink("NVO_RIP", folder);
  const test::Outcome no_folder = rip({input});
  EXPECT_EQ(no_folder.code, 0);
  EXPECT_EQ(count(no_folder.out, "[WARN ] Settings: cannot enter the folder '" + folder + "': Too many"), 1u)
      << no_folder.out;
  EXPECT_EQ(count(no_folder.out, "Settings: "), 2u) << "and that the folder can't be made";
}

TEST_F(CommandLine, ATargetThatAppearsMeanwhileStaysAndWhatAKilledJobLeftGoes) {
  const std::string input = art("long.tif", 1200, 6000), output = dir.file("o.prt");
  test::write_all(output + ".nvo_tmp_2000000000_5_0", "of a job that was killed");
  test::ChildProcess program({NVO_RIP_PROGRAM, input, output}, {});
  const std::string temporary = "o.prt.nvo_tmp_" + std::to_string(program.id()) + "_";
  while (!testing::Value(dir.names(), testing::Contains(testing::StartsWith(temporary))))
    std::this_thread::yield();
  test::write_all(output, "somebody else's");
  EXPECT_EQ(program.wait(), 2);
  EXPECT_EQ(test::read_all(output), "somebody else's");
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"long.tif", "o.prt"}));
}

// The settings files belong to the shop: not even a missing or a broken one is made anew.
TEST_F(CommandLine, AJobNeverWritesSettings) {
  const std::string input = art("art.tif", 12, 9);
  const auto path = [&](const std::string& name) { return config.file("NVO_RIP/" + name); };
  std::filesystem::create_directories(path(""));
  const std::map<std::string, std::string> cases[] = {
      {{"settings.json", ""}, {"job_settings.json", ""}, {"icc_settings.json", ""}},  // there are none
      {{"settings.json", "{"},
       {"job_settings.json", R"({"print_head":"i1600","white_generation_mode":"InkBudget"})"},
       {"icc_settings.json", "[]"}},
      {{"settings.json", R"({"ui_language":"ru"})"},
       {"job_settings.json", R"({"print_head":"i9"})"},
       {"icc_settings.json", R"({"intent":2})"}},
  };
  for (const auto& files : cases) {
    for (const auto& [name, text] : files)
      if (!text.empty()) test::write_all(path(name), text);
    EXPECT_EQ(rip({input}).code, 0);
    for (const auto& [name, text] : files) EXPECT_EQ(test::read_all(path(name)), text) << name;
  }
}

}  // namespace
}  // namespace nvo
