// `sl3d patterns`: writes the 13 frames a projector throws for one
// phase-shift capture, with a YAML file saying where the usable stripe
// periods lie, or (--check) reports how captured frames are exposed.

#include "patterns.h"

#include <cstdio>
#include <filesystem>

#include "args.h"
#include "commands.h"
#include "errors.h"
#include "io.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

const char kCommand[] = "patterns";
const char kYamlName[] = "patterns.yaml";

std::string pattern_name(int index) {
  char name[32];
  std::snprintf(name, sizeof name, "pattern_%02d.png", index);
  return name;
}

// Each line of `text` as a YAML comment.
void comment(cv::FileStorage& yaml, const std::vector<const char*>& lines) {
  for (const char* line : lines) yaml.writeComment(line);
}

std::string layout_yaml(const PhaseShiftPatternLayout& layout) {
  cv::FileStorage yaml(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  comment(yaml, {"Phase-shift frames pattern_00.png .. pattern_12.png by 'sl3d patterns'.",
                 "The number is the frame index: 00 black, 01 white, 02..08 Gray code",
                 "(most significant bit first), 09..12 fringes a quarter period apart.",
                 "Projector pixels; columns count from 0 at the left."});
  yaml << "width" << layout.width << "height" << layout.height;
  comment(yaml, {"Columns per stripe period; the 128 periods lie side by side from",
                 "first_column to last_column. The phase rises with the column and",
                 "wraps where the period number rises."});
  yaml << "period" << layout.period << "periods" << kPhaseShiftPeriods;
  yaml << "first_column" << layout.first_column;
  yaml << "last_column" << layout.period_begin(kPhaseShiftPeriods) - 1;
  comment(yaml, {"Only these periods are measured: aim the projector so that their",
                 "columns cover what both cameras see."});
  yaml << "usable_first_period" << kFirstUsablePeriod << "usable_last_period"
       << kLastUsablePeriod;
  yaml << "usable_first_column" << layout.usable_begin() << "usable_last_column"
       << layout.usable_end() - 1;
  return yaml.releaseAndGetString();
}

// The projector's size and period from the command line; sizes the
// patterns cannot serve are refused before anything is written.
PhaseShiftPatternLayout requested_layout(const ParsedArgs& parsed) {
  const int width = parsed.get_int("--width", 0, 1, kMaxProjectorSide);
  const int height = parsed.get_int("--height", 0, 1, kMaxProjectorSide);
  const int min_width = kPhaseShiftPeriods * kMinPhaseShiftPeriod;
  if (width < min_width) {
    throw usage_error(kCommand, "a projector " + std::to_string(width) +
                                    " columns wide cannot show 128 periods of at least " +
                                    std::to_string(kMinPhaseShiftPeriod) + " columns (needs " +
                                    std::to_string(min_width) + ")");
  }
  const int largest = default_phase_shift_period(width);
  const int period = parsed.get_int("--period", largest, 1, kMaxProjectorSide);
  if (period < kMinPhaseShiftPeriod || period > largest) {
    throw usage_error(kCommand, "--period " + std::to_string(period) + ": 128 periods of " +
                                    "2 to " + std::to_string(largest) + " columns fit " +
                                    std::to_string(width) + " columns");
  }
  PhaseShiftPatternLayout layout;
  phase_shift_pattern_layout(width, height, period, layout);
  return layout;
}

int run_write(const ParsedArgs& parsed) {
  if (!parsed.has("--width") || !parsed.has("--height") || !parsed.has("--out")) {
    throw usage_error(kCommand, "give --width, --height and --out (or --check DIR)");
  }
  if (parsed.has("--params")) throw usage_error(kCommand, "--params goes with --check");
  const PhaseShiftPatternLayout layout = requested_layout(parsed);
  const std::string dir = parsed.require("--out");
  write_phase_shift_patterns(dir, layout);
  std::printf("wrote pattern_00.png .. pattern_12.png (%dx%d) and %s to %s\n", layout.width,
              layout.height, kYamlName, dir.c_str());
  std::printf("period %d columns, 128 periods on columns %d..%d; the generator measures "
              "periods %d..%d, columns %d..%d\n",
              layout.period, layout.first_column, layout.period_begin(kPhaseShiftPeriods) - 1,
              kFirstUsablePeriod, kLastUsablePeriod, layout.usable_begin(),
              layout.usable_end() - 1);
  return 0;
}

}  // namespace

void write_phase_shift_patterns(const std::string& dir, const PhaseShiftPatternLayout& layout) {
  prepare_output_directory(dir);
  const std::vector<cv::Mat> frames =
      make_phase_shift_patterns(layout.width, layout.height, layout.period);
  if (frames.empty()) throw CliError("no phase-shift patterns for this projector");
  std::vector<PendingFile> files;
  files.reserve(frames.size() + 1);
  for (std::size_t index = 0; index < frames.size(); ++index) {
    files.emplace_back((fs::path(dir) / pattern_name(int(index))).string());
    files.back().write(encode_png(frames[index], files.back().final_path()));
  }
  files.emplace_back((fs::path(dir) / kYamlName).string());
  files.back().write(layout_yaml(layout));
  commit_all(files);
}

std::vector<cv::Mat> read_phase_shift_patterns(const std::string& dir) {
  std::vector<cv::Mat> frames;
  for (int index = 0; index < kPhaseShiftFrameCount; ++index) {
    const std::string path = (fs::path(dir) / pattern_name(index)).string();
    frames.push_back(read_grey_png(path));
    if (frames.back().size() != frames.front().size()) {
      throw file_error(path, "differs in size from " + pattern_name(0));
    }
  }
  return frames;
}

int run_patterns(const std::vector<std::string>& args) {
  const ParsedArgs parsed =
      parse_options(kCommand, args,
                    {{"--width", true}, {"--height", true}, {"--out", true}, {"--period", true},
                     {"--check", true}, {"--params", true}});
  if (!parsed.has("--check")) return run_write(parsed);
  for (const char* option : {"--width", "--height", "--out", "--period"}) {
    if (parsed.has(option)) {
      throw usage_error(kCommand, std::string(option) + " does not go with --check");
    }
  }
  return check_phase_shift_captures(parsed.require("--check"),
                                    parsed.has("--params") ? parsed.require("--params") : "");
}

}  // namespace sl3d
