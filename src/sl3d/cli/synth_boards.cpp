// `sl3d synth --boards DIR`: views of a calibration board of one family at
// several poses, the key file that `sl3d detect` recognizes them with and
// the true centre of every circle.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>

#include "board_family.h"
#include "commands.h"
#include "errors.h"
#include "io.h"
#include "synth_boards.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

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

int run_synth_boards(const BoardSynthRequest& request) {
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
  files.back().write(board.params_text);
  files.emplace_back((fs::path(request.dir) / "truth.csv").string());
  files.back().write(truth.str());
  commit_all(files);

  std::printf("wrote %d %s board views (%dx%d), board_params.yaml and truth.csv to %s\n",
              count, family_name(request.family), request.width, request.height,
              request.dir.c_str());
  return 0;
}

}  // namespace sl3d
