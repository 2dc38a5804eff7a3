// `sl3d detect`: recognizes a calibration board in each image and reports
// the error code, its name and how many circles were numbered; optionally
// writes the result picture and the numbered centres of every recognized
// image.

#include <cfloat>
#include <cstdio>
#include <filesystem>
#include <set>
#include <sstream>

#include "args.h"
#include "board_family.h"
#include "board_params.h"
#include "commands.h"
#include "errors.h"
#include "io.h"
#include "result_drawing.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

const char kCommand[] = "detect";
// Every image was read but at least one board was not recognized.
constexpr int kExitNotRecognized = 3;

struct DetectRequest {
  BoardFamily family = BoardFamily::kPellux;
  std::string params_path;
  std::string result_dir;  // empty: no result files
  std::vector<std::string> images;
};

bool takes_value(const std::string& option) {
  return option == "--board" || option == "--params" || option == "--result-dir";
}

DetectRequest parse_detect_args(const std::vector<std::string>& args) {
  DetectRequest request;
  std::vector<std::string> options;
  bool value_next = false;
  for (const std::string& arg : args) {
    if (!value_next && !arg.empty() && arg[0] != '-') {
      request.images.push_back(arg);
      continue;
    }
    options.push_back(arg);
    value_next = !value_next && takes_value(arg);
  }
  const ParsedArgs parsed = parse_options(
      kCommand, options, {{"--board", true}, {"--params", true}, {"--result-dir", true}});
  request.family = parse_board_family(kCommand, parsed.require("--board"));
  request.params_path = parsed.require("--params");
  if (parsed.has("--result-dir")) request.result_dir = parsed.require("--result-dir");
  if (request.images.empty()) throw usage_error(kCommand, "no image given");
  return request;
}

// Result files are named after the image, so two images of one name
// would overwrite each other's.
void check_distinct_stems(const std::vector<std::string>& images) {
  std::set<std::string> stems;
  for (const std::string& image : images) {
    if (!stems.insert(fs::path(image).stem().string()).second) {
      throw usage_error(kCommand, "with --result-dir the image names must differ, '" +
                                      fs::path(image).stem().string() + "' repeats");
    }
  }
}

struct Outcome {
  int code = 0;
  std::string name;
  int numbered = 0;
  std::vector<cv::Point2f> points;  // by marker index; x FLT_MAX: not found
};

Outcome recognize_one(iCalibBoardRecognizer& recognizer, BoardRecords records, cv::Mat& image) {
  // Configured afresh for each image: the record's size words are 0, so
  // every image may have its own size.
  if (!recognizer.set_parameters(records.pre, records.marker, records.board)) {
    throw CliError("the recognizer refused the board parameters");
  }
  Outcome outcome;
  outcome.code = recognizer.recognize(image, outcome.points);
  outcome.name = recognizer.get_error_name(outcome.code);
  if (outcome.code == 0) {
    std::vector<cv::Point2f> image_points;
    std::vector<cv::Point3f> board_points;
    outcome.numbered = recognizer.corresponding_points(outcome.points, image_points, board_points);
  }
  return outcome;
}

std::string result_path(const std::string& dir, const std::string& image, const char* suffix) {
  return (fs::path(dir) / (fs::path(image).stem().string() + suffix)).string();
}

std::string points_csv(const iCalibBoardRecognizer& recognizer, const Outcome& outcome) {
  std::ostringstream csv;
  csv << "index,x,y,X,Y,Z\n";
  char row[160];
  for (int index = 0; index < static_cast<int>(outcome.points.size()); ++index) {
    const cv::Point2f p = outcome.points[index];
    if (p.x == FLT_MAX) continue;  // the walk did not reach this circle
    const cv::Point3f q = recognizer.get_3d_position(index);
    std::snprintf(row, sizeof row, "%d,%.4f,%.4f,%g,%g,%g\n", index, p.x, p.y, q.x, q.y, q.z);
    csv << row;
  }
  return csv.str();
}

void write_results(iCalibBoardRecognizer& recognizer, const Outcome& outcome,
                   const std::string& dir, const std::string& image) {
  cv::Mat picture;
  recognizer.copy_result_image(picture);
  annotate_result(picture, recognizer, outcome.points);
  PendingFile png(result_path(dir, image, "_result.png"));
  png.write(encode_png(picture, png.final_path()));
  PendingFile csv(result_path(dir, image, "_points.csv"));
  csv.write(points_csv(recognizer, outcome));
  png.commit();
  csv.commit();
}

// Files of an earlier run would pass for results of this one.
void remove_stale_results(const std::string& dir, const std::string& image) {
  std::error_code ec;
  fs::remove(result_path(dir, image, "_result.png"), ec);
  fs::remove(result_path(dir, image, "_points.csv"), ec);
}

void report_problem(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "sl3d: %s\n", message.c_str());
}

void print_outcome(const std::string& image, const Outcome& outcome, int total) {
  std::printf("%s: %d %s, %d/%d circles numbered\n", image.c_str(), outcome.code,
              outcome.name.c_str(), outcome.numbered, total);
}

}  // namespace

int run_detect(const std::vector<std::string>& args) {
  const DetectRequest request = parse_detect_args(args);
  const BoardRecords records = read_board_params(request.params_path);
  const bool write = !request.result_dir.empty();
  if (write) {
    check_distinct_stems(request.images);
    prepare_output_directory(request.result_dir);
  }
  const RecognizerPtr recognizer = make_recognizer(request.family);
  const int total = records.board.n_circles_x * records.board.n_circles_y;
  bool tool_error = false, all_recognized = true;
  for (const std::string& path : request.images) {
    try {
      if (write) remove_stale_results(request.result_dir, path);
      cv::Mat image = read_grey_png(path);
      const Outcome outcome = recognize_one(*recognizer, records, image);
      if (outcome.code == 0 && write) {
        write_results(*recognizer, outcome, request.result_dir, path);
      }
      print_outcome(path, outcome, total);
      all_recognized = all_recognized && outcome.code == 0;
    } catch (const CliError& e) {
      // One line per bad image; the others are still worth their results.
      report_problem(e.what());
      tool_error = true;
    }
  }
  std::fflush(stdout);
  if (tool_error) return kExitRuntimeError;
  return all_recognized ? 0 : kExitNotRecognized;
}

}  // namespace sl3d
