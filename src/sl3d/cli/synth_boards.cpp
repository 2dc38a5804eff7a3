// `sl3d synth --boards DIR`: views of a calibration board of one family at
// several poses, the key file that `sl3d detect` recognizes them with and
// the true centre of every circle.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>

#include <sl3d/sim/sim_calibration.h>

#include "board.h"
#include "board_family.h"
#include "board_params.h"
#include "commands.h"
#include "errors.h"
#include "io.h"
#include "synth_boards.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

// The board's key file with the circles' radius the calibration's
// circle-centre refinement reads (already there when the text came from
// 'sl3d board').
std::string key_file_text(const SynthBoard& board) {
  if (board.params_text.find("\ncircle_radius:") != std::string::npos) return board.params_text;
  return board.params_text + circle_radius_key_text(board.layout.radius);
}

// The board's middle this far away fills about half the image width at
// the tool's focal length of 1.09 px per pixel of width.
constexpr double kDistanceMm = 330.0;

BoardCamera board_camera(const BoardSynthRequest& request) {
  BoardCamera camera;
  camera.width = request.width;
  camera.height = request.height;
  camera.fx = camera.fy = request.focal_px;
  camera.cx = (request.width - 1) * 0.5;
  camera.cy = (request.height - 1) * 0.5;
  return camera;
}

std::string view_name(int view) {
  char name[32];
  std::snprintf(name, sizeof name, "board_%02d.png", view);
  return name;
}

// Distances of the calibration boards, millimetres: nearer than the scene
// (about 1100 mm), as a board is usually held.
constexpr double kCalibrationNearMm = 600.0;
constexpr double kCalibrationFarMm = 1000.0;

void add_truth_rows(std::ostringstream& csv, const std::string& image, const SynthBoard& board,
                    const BoardRendering& rendering) {
  char row[160];
  for (std::size_t c = 0; c < rendering.centres.size(); ++c) {
    const cv::Point2d p = rendering.centres[c];
    const cv::Point2d e = rendering.ellipse_centres[c];
    const cv::Point3d q = board.truth_position[c];
    std::snprintf(row, sizeof row, "%s,%d,%.4f,%.4f,%.4f,%.4f,%g,%g,%g\n", image.c_str(),
                  board.truth_index[c], p.x, p.y, e.x, e.y, q.x, q.y, q.z);
    csv << row;
  }
}

}  // namespace

StereoBoardSet render_stereo_boards(BoardFamily family, int width, int height,
                                    const BoardImaging& imaging) {
  const BoardGrid grid = BoardGrid::calibration();
  const double focal_px = SimRig::scaled(width, height).focal_px;
  const SynthBoard board =
      synth_board(family, min_radius_for(grid, focal_px, kCalibrationFarMm), grid);
  // The cameras photograph the board as `sl3d board` prints it: its bitmap
  // at the print resolution, filtered over each pixel's footprint. Circles
  // sampled analytically at a few points per pixel leave quantised edges
  // whose centre scatter a calibration to a tenth of a pixel cannot afford.
  const double ppmm = pixels_per_mm(BoardPrint().dpi);
  const BoardTexture texture =
      board_texture(board.design, board_raster(board.design, ppmm), ppmm);
  return render_stereo_boards(board, width, height, imaging, &texture);
}

StereoBoardSet render_stereo_boards(const SynthBoard& board, int width, int height,
                                    const BoardImaging& imaging, const BoardTexture* texture) {
  StereoBoardSet set;
  set.cameras = default_raw_cameras(SimRig::scaled(width, height));
  set.board = board;
  const std::vector<BoardPose> poses =
      calibration_poses(set.cameras, set.board.layout, calibration_views(board.family),
                        kCalibrationNearMm, kCalibrationFarMm);
  progress("rendering " + std::to_string(poses.size()) + " stereo board views");
  set.views = render_calibration_set(set.cameras, set.board.layout, poses, imaging, texture);
  return set;
}

std::array<std::vector<std::string>, 2> write_stereo_boards(const StereoBoardSet& set,
                                                            const std::string& dir) {
  prepare_output_directory(dir);
  std::array<std::vector<std::string>, 2> paths;
  std::vector<PendingFile> files;
  std::ostringstream truth;
  truth << "image,index,x,y,ellipse_x,ellipse_y,X,Y,Z\n";
  const char* const side[2] = {"left", "right"};
  for (std::size_t view = 0; view < set.views.size(); ++view) {
    for (int camera = 0; camera < 2; ++camera) {
      char name[32];
      std::snprintf(name, sizeof name, "%s_%02zu.png", side[camera], view);
      const std::string path = (fs::path(dir) / name).string();
      files.emplace_back(path);
      files.back().write(encode_png(set.views[view].images[camera].image, path));
      add_truth_rows(truth, name, set.board, set.views[view].images[camera]);
      paths[camera].push_back(path);
    }
  }
  files.emplace_back((fs::path(dir) / "board_params.yaml").string());
  files.back().write(key_file_text(set.board));
  files.emplace_back((fs::path(dir) / "truth.csv").string());
  files.back().write(truth.str());
  PendingDirectory true_calib((fs::path(dir) / "true_calib").string());
  if (!write_calibration_directory(set.cameras, true_calib.temp_path())) {
    throw file_error(true_calib.final_path(), "cannot write the calibration files");
  }
  commit_all(files);
  true_calib.commit();
  return paths;
}

namespace {

int run_synth_stereo_boards(const BoardSynthRequest& request) {
  BoardImaging imaging;
  imaging.noise_sigma = request.noise;
  imaging.blur_sigma_px = request.blur;
  const StereoBoardSet set =
      render_stereo_boards(request.family, request.width, request.height, imaging);
  write_stereo_boards(set, request.dir);
  std::printf("wrote %zu %s stereo board views (%dx%d), board_params.yaml, truth.csv and "
              "true_calib/ to %s\n",
              set.views.size(), family_name(request.family), request.width, request.height,
              request.dir.c_str());
  std::printf("calibrate with: sl3d calibrate --board %s --params %s/board_params.yaml "
              "--left %s/left_*.png --right %s/right_*.png -o CALIBDIR\n",
              family_name(request.family), request.dir.c_str(), request.dir.c_str(),
              request.dir.c_str());
  return 0;
}

}  // namespace

int run_synth_boards(const BoardSynthRequest& request) {
  if (request.stereo) {
    if (request.views != 0) throw usage_error("synth", "--views does not go with --stereo");
    return run_synth_stereo_boards(request);
  }
  const std::vector<ViewAngles>& views = board_views(request.family);
  const int count = request.views == 0 ? static_cast<int>(views.size()) : request.views;
  if (count < 1 || count > static_cast<int>(views.size())) {
    throw usage_error("synth", "--views expects 1 to " + std::to_string(views.size()) +
                                   " for " + family_name(request.family));
  }
  prepare_output_directory(request.dir);
  const SynthBoard board = synth_board(
      request.family, min_radius_for(BoardGrid::detection(), request.focal_px, kDistanceMm));
  BoardImaging imaging;
  imaging.noise_sigma = request.noise;
  imaging.blur_sigma_px = request.blur;

  std::vector<PendingFile> files;
  std::ostringstream truth;
  truth << "image,index,x,y,ellipse_x,ellipse_y,X,Y,Z\n";
  for (int view = 0; view < count; ++view) {
    progress("rendering board view " + std::to_string(view));
    const ViewAngles& a = views[view];
    imaging.seed = 1 + view;
    const BoardRendering rendering = render_board(
        board.layout, board_pose_facing(board.layout, kDistanceMm, a.tilt_x, a.tilt_y, a.roll),
        board_camera(request), imaging);
    const std::string name = view_name(view);
    const std::string path = (fs::path(request.dir) / name).string();
    files.emplace_back(path);
    files.back().write(encode_png(rendering.image, path));
    add_truth_rows(truth, name, board, rendering);
  }
  files.emplace_back((fs::path(request.dir) / "board_params.yaml").string());
  files.back().write(key_file_text(board));
  files.emplace_back((fs::path(request.dir) / "truth.csv").string());
  files.back().write(truth.str());
  commit_all(files);

  std::printf("wrote %d %s board views (%dx%d), board_params.yaml and truth.csv to %s\n",
              count, family_name(request.family), request.width, request.height,
              request.dir.c_str());
  return 0;
}

}  // namespace sl3d
