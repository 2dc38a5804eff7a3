// Writes the seed corpus of every fuzz target with the project's own
// writers: `fuzz_seeds DIR` fills DIR/<target>/ with a few valid inputs.

#include <cstdio>
#include <sstream>

#include <opencv2/imgcodecs.hpp>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>
#include <sl3d/sim/board_families.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

#include "../src/sl3d/cli/io.h"
#include "fuzz_util.h"

namespace {

namespace fs = std::filesystem;

fs::path g_root;

void seed(const std::string& target, const std::string& name, const std::string& bytes) {
  fs::create_directories(g_root / target);
  std::ofstream(g_root / target / name, std::ios::binary) << bytes;
}

std::string file_bytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The calibration files, whole and one at a time behind their selector.
void calibration_seeds() {
  const fs::path dir = sl3d_fuzz::good_calibration();
  const char* const files[] = {"hmat0.dat",       "hmat1.dat",       "rect.param",
                               "cam0_param.yaml", "cam1_param.yaml", "stereo_param.yaml",
                               "rect0.map",       "rect1.map"};
  for (int i = 0; i < 8; ++i) {
    seed("calib_dir_fuzz", files[i], std::string(1, char(i)) + file_bytes(dir / files[i]));
  }
  seed("hmat_fuzz", "hmat0.dat", file_bytes(dir / "hmat0.dat"));
  seed("hmat_fuzz", "hmat1.dat", file_bytes(dir / "hmat1.dat"));
  seed("camera_yaml_fuzz", "cam0_param.yaml", file_bytes(dir / "cam0_param.yaml"));
  seed("stereo_yaml_fuzz", "stereo_param.yaml", file_bytes(dir / "stereo_param.yaml"));
}

// Small maps, so that mutations reach the headers of both records.
void map_seeds() {
  UndistortCamera cams[2] = {UndistortCamera(cv::Size(4, 3), "L"),
                             UndistortCamera(cv::Size(4, 3), "R")};
  for (UndistortCamera& cam : cams) {
    cam.map1 = cv::Mat(3, 4, CV_32F, cv::Scalar(1.5f));
    cam.map2 = cv::Mat(3, 4, CV_32F, cv::Scalar(2.5f));
  }
  const std::string selector_map("\x00\x00\x00", 3), selector_tables("\x01\x03\x02", 3);
  std::ostringstream map_file(selector_map, std::ios::ate | std::ios::binary);
  save_map(map_file, cams[0].map1);
  save_map(map_file, cams[0].map2);
  seed("rectify_maps_fuzz", "map", map_file.str());
  std::ostringstream tables(selector_tables, std::ios::ate | std::ios::binary);
  SaveRectifyTables(cams, tables);
  seed("rectify_maps_fuzz", "tables", tables.str());
}

std::string storage_text(const std::function<void(cv::FileStorage&)>& write) {
  cv::FileStorage out(".yml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  write(out);
  return out.releaseAndGetString();
}

void key_file_seeds() {
  const sl3d::SynthBoard board = sl3d::synth_board(sl3d::BoardFamily::kPellux, 8.0);
  seed("key_file_fuzz", "board", std::string(1, '\0') + board.params_text);
  const PhaseShiftParams ps;
  seed("key_file_fuzz", "phaseshift", "\x01" + storage_text([&](cv::FileStorage& fs) {
         fs << "min_contrast" << ps.min_contrast << "max_disparity" << ps.max_disparity
            << "min_disparity" << ps.min_disparity << "fit_width" << ps.fit_width;
       }));
  const SGBMParams sgbm;
  seed("key_file_fuzz", "sgbm", "\x02" + storage_text([&](cv::FileStorage& fs) {
         fs << "num_disparities" << sgbm.num_disparities << "block_size" << sgbm.block_size
            << "mode" << sgbm.mode;
       }));
}

// png_fuzz's built files: width and height less one (16 bits each), then the
// rows, each behind its filter byte; every filter is used.
std::string filtered_rows(const cv::Mat& frame) {
  const int w = frame.cols - 1, h = frame.rows - 1;
  std::string bytes = {char(w >> 8), char(w), char(h >> 8), char(h)};
  for (int y = 0; y < frame.rows; ++y) {
    bytes += char(y % 5);
    bytes.append(frame.ptr<char>(y), static_cast<std::size_t>(frame.cols));
  }
  return bytes;
}

void image_seeds() {
  const sl3d::VirtualSensor sensor(sl3d::SimRig::scaled(32, 24));
  seed("q_yaml_fuzz", "q.yaml", sl3d::q_matrix_yaml(sensor.ground_truth().q));
  const cv::Mat frame = sensor.render_textured(0);
  const std::vector<unsigned char> png = sl3d::encode_png(frame, "seed");
  const std::string file(png.begin(), png.end());
  seed("png_fuzz", "textured.png", std::string(1, '\0') + file);
  seed("png_fuzz", "textured_crc_fixed.png", "\x01" + file);
  seed("png_fuzz", "rows", "\x02" + filtered_rows(frame));
  const PhaseShiftParams params;
  seed("phaseshift_fuzz", "defaults",
       std::string(reinterpret_cast<const char*>(&params), sizeof params));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: fuzz_seeds DIR\n");
    return 2;
  }
  g_root = argv[1];
  calibration_seeds();
  map_seeds();
  key_file_seeds();
  image_seeds();
  return 0;
}
