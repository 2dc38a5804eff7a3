// `sl3d calibrate`: a calibration directory from board images of both
// cameras.

#include "calibrate.h"

#include <cmath>
#include <cstdio>

#include <opencv2/calib3d.hpp>

#include <sl3d/calibrator/calibration_directory.h>
#include <sl3d/calibrator/calibration_flags.h>
#include <sl3d/calibrator/precise_calibration.h>

#include "args.h"
#include "commands.h"
#include "errors.h"
#include "io.h"

namespace sl3d {

namespace {

const char kCommand[] = "calibrate";
const char* const kSide[2] = {"left", "right"};
// Fewer correspondences leave an image out of the intrinsic calibration.
constexpr int kMinMarkers = 5;

void warn(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "sl3d: warning: %s\n", message.c_str());
}

void check_sizes(const CalibrationJob& job) {
  if (job.images[0].empty()) throw usage_error(kCommand, "no left image given");
  if (job.images[1].empty()) throw usage_error(kCommand, "no right image given");
  const cv::Size size = job.images[0].front().image.size();
  for (const std::vector<NamedImage>& side : job.images) {
    for (const NamedImage& image : side) {
      if (image.image.size() != size) {
        throw file_error(image.name, std::to_string(image.image.cols) + "x" +
                                         std::to_string(image.image.rows) +
                                         " pixels, but the first image has " +
                                         std::to_string(size.width) + "x" +
                                         std::to_string(size.height));
      }
    }
  }
}

struct Recognition {
  int code = 0;
  std::string name;
  int markers = 0;  // correspondences with the board
};

// Marker lists for StereoCalib: empty for an image without a result.
std::vector<std::vector<cv::Point2f>> recognize_side(StereoCalib& calib,
                                                     const std::vector<NamedImage>& images,
                                                     std::vector<Recognition>& outcomes) {
  std::vector<std::vector<cv::Point2f>> points;
  for (const NamedImage& named : images) {
    cv::Mat image = named.image.clone();  // recognize may work in place
    std::vector<cv::Point2f> found;
    Recognition r;
    r.code = calib.recognizer->recognize(image, found);
    r.name = calib.recognizer->get_error_name(r.code);
    if (r.code != 0) found.clear();
    std::vector<cv::Point2f> image_points;
    std::vector<cv::Point3f> board_points;
    r.markers = calib.recognizer->corresponding_points(found, image_points, board_points);
    outcomes.push_back(r);
    points.push_back(std::move(found));
  }
  return points;
}

void warn_left_out(const std::vector<NamedImage>& images, const std::vector<Recognition>& outcomes) {
  for (std::size_t i = 0; i < images.size(); ++i) {
    const Recognition& r = outcomes[i];
    if (r.code != 0) {
      warn(images[i].name + ": board not recognised (" + std::to_string(r.code) + " " + r.name +
           "), image left out");
    } else if (r.markers < kMinMarkers) {
      warn(images[i].name + ": only " + std::to_string(r.markers) +
           " markers numbered, fewer than 5; left out of the intrinsic calibration");
    }
  }
}

void warn_uneven(const CalibrationJob& job) {
  const std::size_t n0 = job.images[0].size(), n1 = job.images[1].size();
  if (n0 == n1) return;
  warn(std::to_string(n0) + " left and " + std::to_string(n1) +
       " right images: the stereo calibration pairs only the first " +
       std::to_string(std::min(n0, n1)));
}

int stereo_view_count(StereoCalib& calib,
                      const std::vector<std::vector<std::vector<cv::Point2f>>>& points) {
  int views = 0;
  for (std::size_t i = 0; i < points[0].size() && i < points[1].size(); ++i) {
    if (points[0][i].empty() || points[1][i].empty()) continue;
    std::vector<cv::Point2f> out0, out1;
    std::vector<cv::Point3f> out3d;
    views += calib.recognizer->corresponding_points(points[0][i], points[1][i], out0, out1,
                                                    out3d) > 0;
  }
  return views;
}

void print_images(const CalibrationJob& job, const std::vector<Recognition> outcomes[2],
                  const std::vector<std::vector<double>>& errors) {
  for (int side = 0; side < 2; ++side) {
    for (std::size_t i = 0; i < job.images[side].size(); ++i) {
      const Recognition& r = outcomes[side][i];
      std::printf("%-5s %s: %d %s, %d markers, reprojection error %.3f px\n", kSide[side],
                  job.images[side][i].name.c_str(), r.code, r.name.c_str(), r.markers,
                  errors[side][i]);
    }
  }
}

void print_cameras(const CalibrationResult& result) {
  for (int c = 0; c < 2; ++c) {
    const DistortCamera& cam = result.cams[c];
    std::printf("cam%d (%s): fx %.3f, fy %.3f, cx %.3f, cy %.3f px; distortion", c, kSide[c],
                cam.K(0, 0), cam.K(1, 1), cam.K(0, 2), cam.K(1, 2));
    for (int i = 0; i < static_cast<int>(cam.D.total()); ++i) std::printf(" %.5f", cam.D(i));
    std::printf("\n");
  }
  const DistortCamera& right = result.cams[1];
  cv::Vec3d rvec;
  cv::Rodrigues(right.R, rvec);
  std::printf("cam1 from cam0: baseline %.3f mm, rotation %.4f deg, T (%.3f, %.3f, %.3f)\n",
              cv::norm(right.T), cv::norm(rvec) * 180.0 / CV_PI, right.T.at<double>(0),
              right.T.at<double>(1), right.T.at<double>(2));
  std::printf("stereo: %d views, RMS reprojection error %.3f px\n", result.stereo_views,
              result.stereo_rms);
}

// OpenCV's messages run over several lines; the tool reports in one.
std::string one_line(std::string text) {
  for (char& c : text) c = c == '\n' ? ' ' : c;
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

std::string count_of(std::size_t n, const char* what) {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

// Why a camera had no usable image, in one line.
std::string unusable_summary(const std::vector<Recognition>& outcomes) {
  std::size_t unrecognised = 0;
  for (const Recognition& r : outcomes) unrecognised += r.code != 0;
  return count_of(outcomes.size(), "image") + ": " + std::to_string(unrecognised) +
         " not recognised, " + std::to_string(outcomes.size() - unrecognised) +
         " with fewer than 5 markers";
}

CliError failure(int code, const std::vector<std::vector<double>>& errors,
                 const std::vector<Recognition> outcomes[2]) {
  if (code == 1) {
    // The right camera's errors are filled only once the left one succeeded.
    const int side = errors[0].empty() ? 0 : 1;
    return CliError(std::string("cannot calibrate the ") + kSide[side] +
                    " camera: no image has a recognised board with at least 5 numbered markers (" +
                    unusable_summary(outcomes[side]) + ")");
  }
  return CliError("cannot calibrate the pair: no view has the board recognised in both its left "
                  "and its right image");
}


int calibrate_plainly(StereoCalib& calib,
                      const std::vector<std::vector<std::vector<cv::Point2f>>>& points,
                      CalibrationResult& result, std::vector<std::vector<double>>& errors) {
  std::vector<std::vector<std::vector<cv::Point2f>>> observations = points;
  try {
    return calib.exec(result.cams, observations, errors, &result.stereo_rms);
  } catch (const cv::Exception& e) {
    throw CliError("calibration failed: OpenCV: " + one_line(e.err));
  }
}

void print_remeasurement(const PreciseCalibration& p) {
  std::printf("marker centres measured again from the images: %d markers, %d kept as "
              "recognised; shift mean %.3f px, at most %.3f px; edge residual mean %.3f px\n",
              p.remeasured, p.unmeasured, p.mean_shift_px, p.max_shift_px, p.mean_residual_px);
  std::printf("first calibration: stereo RMS %.4f px\n", p.first_rms);
}

void print_refinement(const CentreRefinement& r) {
  for (std::size_t i = 0; i < r.steps.size(); ++i) {
    const CentreRefinementStep& s = r.steps[i];
    std::printf("circle-centre refinement step %zu: offsets mean %.3f px, at most %.3f px; "
                "stereo RMS %.4f px; intrinsics moved by at most %.4f px (cam0 fx %+.4f fy "
                "%+.4f cx %+.4f cy %+.4f, cam1 fx %+.4f fy %+.4f cx %+.4f cy %+.4f)\n",
                i + 1, s.mean_offset_px, s.max_offset_px, s.rms, s.intrinsics_change_px,
                s.intrinsics_change[0][0], s.intrinsics_change[0][1], s.intrinsics_change[0][2],
                s.intrinsics_change[0][3], s.intrinsics_change[1][0], s.intrinsics_change[1][1],
                s.intrinsics_change[1][2], s.intrinsics_change[1][3]);
  }
  if (!r.converged && r.code == 0) warn("circle-centre refinement: " + r.message);
}

// A view whose images number the markers differently calibrates nothing
// good: it is left out, and the user told which.
void warn_inconsistent_views(const CalibrationJob& job, const std::vector<LeftOutView>& views) {
  for (const LeftOutView& v : views) {
    char error[32];
    std::snprintf(error, sizeof error, "%.1f", v.error_px);
    warn("view " + std::to_string(v.view) + " (" + job.images[0][v.view].name + ", " +
         job.images[1][v.view].name + ") left out: its right image lies " + error +
         " px (RMS) from where the left image's board pose puts it, so the two images number "
         "the markers differently");
  }
}

std::vector<std::vector<cv::Mat>> job_images(const CalibrationJob& job) {
  std::vector<std::vector<cv::Mat>> images(2);
  for (int side = 0; side < 2; ++side) {
    for (const NamedImage& named : job.images[side]) images[side].push_back(named.image);
  }
  return images;
}

// Re-measured centres, a first calibration and, given the circles' radius,
// the circle-centre refinement. A refinement that fails after a good first
// calibration keeps that one, with a warning. Views the calibration left out
// for disagreeing images are cleared from `points`.
int calibrate_precisely(StereoCalib& calib, const CalibrationJob& job,
                        std::vector<std::vector<std::vector<cv::Point2f>>>& points,
                        CalibrationResult& result, std::vector<std::vector<double>>& errors) {
  PreciseCalibrationOptions options;
  options.refine = job.circle_radius > 0.0;
  options.refinement.circle_radius = job.circle_radius;
  if (!options.refine) {
    std::printf("no circle radius (key \"circle_radius\" of the board key file, or --radius): "
                "the circle-centre refinement is skipped\n");
  }
  const PreciseCalibration p =
      calibrate_stereo_precisely(calib, job_images(job), points, result.cams, errors, options);
  const bool first_done = !p.points.empty();
  if (p.code == 3 || (p.code == 4 && !first_done)) {
    throw CliError("calibration failed: " + one_line(p.message));
  }
  if (!first_done) return p.code;
  warn_inconsistent_views(job, p.left_out);
  for (const LeftOutView& v : p.left_out) {
    points[0][v.view].clear();
    points[1][v.view].clear();
  }
  print_remeasurement(p);
  print_refinement(p.refinement);
  result.stereo_rms = p.refinement.steps.empty() ? p.first_rms : p.refinement.steps.back().rms;
  if (p.code != 0) {
    warn("circle-centre refinement stopped (" + one_line(p.message) +
         "); the calibration before it is kept");
  }
  return 0;
}

}  // namespace

CalibrationResult calibrate_pair(const CalibrationJob& job) {
  check_sizes(job);
  StereoCalib calib(board_type(job.family));
  BoardRecords records = job.records;
  CameraCalibParams params = job.params;
  if (!calib.set_parameters(params, records.board, records.marker, records.pre)) {
    throw CliError("the recognizer refused the board parameters");
  }
  std::vector<Recognition> outcomes[2];
  std::vector<std::vector<std::vector<cv::Point2f>>> points(2);
  for (int side = 0; side < 2; ++side) {
    progress(std::string("recognising the ") + kSide[side] + " images");
    points[side] = recognize_side(calib, job.images[side], outcomes[side]);
  }

  CalibrationResult result;
  result.cams = {DistortCamera(cv::Size(0, 0), "cam0"), DistortCamera(cv::Size(0, 0), "cam1")};
  std::vector<std::vector<double>> errors(2);
  progress("calibrating");
  const int code = job.precise ? calibrate_precisely(calib, job, points, result, errors)
                               : calibrate_plainly(calib, points, result, errors);
  // A failure is one line; warnings only accompany a calibration.
  if (code != 0) throw failure(code, errors, outcomes);
  for (int side = 0; side < 2; ++side) warn_left_out(job.images[side], outcomes[side]);
  warn_uneven(job);
  result.stereo_views = stereo_view_count(calib, points);
  print_images(job, outcomes, errors);
  print_cameras(result);
  return result;
}

void write_calibration_directory(const CalibrationResult& result, const std::string& dir) {
  PendingDirectory pending(dir);
  if (!store_calibration_directory(result.cams.data(), pending.temp_path())) {
    throw file_error(dir, "cannot write the calibration files");
  }
  pending.commit();
}

namespace {

struct CalibrateRequest {
  BoardFamily family = BoardFamily::kPellux;
  std::string params_path;
  std::string out_dir;
  CameraCalibParams params;
  bool precise = true;
  double radius = 0.0;  // 0: the key file's, if any
  std::vector<std::string> images[2];
};

// --left and --right take every following argument up to the next option.
CalibrateRequest parse_calibrate_args(const std::vector<std::string>& args) {
  CalibrateRequest request;
  std::vector<std::string> options;
  std::vector<std::string>* list = nullptr;
  for (const std::string& arg : args) {
    if (arg == "--left" || arg == "--right") {
      list = &request.images[arg == "--left" ? 0 : 1];
      if (!list->empty()) throw usage_error(kCommand, arg + " given twice");
      continue;
    }
    if (list != nullptr && (arg.empty() || arg[0] != '-')) {
      list->push_back(arg);
      continue;
    }
    list = nullptr;
    options.push_back(arg);
  }
  const ParsedArgs parsed = parse_options(kCommand, options,
                                          {{"--board", true},
                                           {"--params", true},
                                           {"--out", true, "-o"},
                                           {"--flags", true},
                                           {"--focal", true},
                                           {"--radius", true},
                                           {"--no-refine", false}});
  request.family = parse_board_family(kCommand, parsed.require("--board"));
  request.params_path = parsed.require("--params");
  request.out_dir = parsed.require("--out");
  // Unless told otherwise, k3 stays at 0: the free fifth coefficient fits
  // the noise of the marker centres and bends the image corners.
  request.params.flags =
      parsed.get_int("--flags", recommended_calibration_flags(), 0, 1 << 30);
  request.precise = !parsed.has("--no-refine");
  request.radius = parsed.get_double("--radius", 0.0, 0.0, 1e6);
  if (parsed.has("--radius") && request.radius <= 0.0) {
    throw usage_error(kCommand, "--radius must be above 0");
  }
  request.params.focal_length = parsed.get_double("--focal", 0.0, 0.0, 1e6);
  for (int side = 0; side < 2; ++side) {
    if (request.images[side].empty()) {
      throw usage_error(kCommand, std::string("no ") + kSide[side] + " image given");
    }
  }
  return request;
}

}  // namespace

int run_calibrate(const std::vector<std::string>& args) {
  const CalibrateRequest request = parse_calibrate_args(args);
  CalibrationJob job;
  job.family = request.family;
  job.records = read_board_params(request.params_path);
  job.params = request.params;
  job.precise = request.precise;
  job.circle_radius = request.radius > 0.0 ? request.radius : job.records.circle_radius;
  check_output_directory_path(request.out_dir);
  for (int side = 0; side < 2; ++side) {
    for (const std::string& path : request.images[side]) {
      job.images[side].push_back({path, read_grey_png(path)});
    }
  }
  const CalibrationResult result = calibrate_pair(job);
  write_calibration_directory(result, request.out_dir);
  std::printf("calibration written to %s\n", request.out_dir.c_str());
  return 0;
}

}  // namespace sl3d
