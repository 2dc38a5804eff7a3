// The `sl3d` tool, run as a separate process: rendered captures must measure
// to the true depth, the same on one thread as on two, and every kind of bad
// input must end in one error line naming the culprit, a non-zero exit and
// no output file. Each check of the tool has one representative case here;
// the YAML reader's own cases are in its unit test and in bad_inputs_test,
// and raw captures measured through a calibration against the truth are
// the demo's (cli_demo_test), which scans the same way.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <regex>

#include <opencv2/imgcodecs.hpp>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

#include "cli_util.h"

namespace {

using namespace sl3d_test;

constexpr int kWidth = 320;
constexpr int kHeight = 256;

// A point cloud as the tool writes it: vertices and the range grid.
struct Ply {
  int cols = 0;
  int rows = 0;
  std::vector<cv::Vec3f> xyz;  // per vertex
  std::vector<int> grid;       // per pixel: vertex index or -1
};

Ply read_ply(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  Ply ply;
  int vertices = 0;
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line, "ply") << path;
  while (std::getline(in, line) && line != "end_header") {
    std::sscanf(line.c_str(), "obj_info num_cols %d", &ply.cols);
    std::sscanf(line.c_str(), "obj_info num_rows %d", &ply.rows);
    std::sscanf(line.c_str(), "element vertex %d", &vertices);
  }
  for (int i = 0; i < vertices && in; ++i) {
    char record[15];
    in.read(record, sizeof record);
    cv::Vec3f p;
    std::memcpy(&p[0], record, 12);
    ply.xyz.push_back(p);
  }
  for (int i = 0; i < ply.cols * ply.rows && in; ++i) {
    const int entries = in.get();
    int index = -1;
    if (entries == 1) in.read(reinterpret_cast<char*>(&index), 4);
    ply.grid.push_back(index);
  }
  EXPECT_TRUE(in && in.peek() == EOF) << path << ": size does not match its header";
  return ply;
}

// Captures rendered once for the whole program: rectified ones with q.yaml,
// raw ones with their calibration directory calib/.
class CliTest : public ToolTest {
 protected:
  static void SetUpTestSuite() {
    ToolTest::SetUpTestSuite();
    for (const bool rectified : {true, false}) {
      std::vector<std::string> args = {"synth", "--out",
                                       (rectified ? synth_dir() : raw_dir()).string(), "--width",
                                       std::to_string(kWidth), "--height", std::to_string(kHeight)};
      if (rectified) args.push_back("--rectified");
      const RunResult r = run(args);
      ASSERT_EQ(r.exit_code, 0) << r.err;
    }
    write_text(root_ / "sgbm_params.yaml", "num_disparities: 64\nblock_size: 5\n");
  }

  static fs::path synth_dir() { return root_ / "synth"; }  // rectified, q.yaml
  static fs::path raw_dir() { return root_ / "raw"; }      // raw, calib/
  static fs::path q() { return synth_dir() / "q.yaml"; }
  static std::string sgbm_params() { return (root_ / "sgbm_params.yaml").string(); }

  // Stereo views of the three-ring board (88 circles) and their key file,
  // rendered on first use.
  static fs::path boards() {
    const fs::path dir = root_ / "boards";
    if (!fs::exists(dir / "board_params.yaml")) {
      EXPECT_EQ(run({"synth", "--boards", dir.string(), "--stereo", "--width", "320", "--height",
                     "256"})
                    .exit_code,
                0);
    }
    return dir;
  }

  // Scans `images` into `out_dir`/cloud.ply and depth.png.
  static RunResult scan(const std::string& method, const fs::path& images, const fs::path& q,
                        const fs::path& out_dir, const std::vector<std::string>& extra = {},
                        const std::string& prefix = "") {
    return run(cat({"scan", "--method", method, "--images", images.string(), "--q", q.string(),
                    "-o", (out_dir / "cloud.ply").string(), "--depth-png",
                    (out_dir / "depth.png").string()},
                   extra),
               prefix);
  }
};

double percentile(std::vector<double> values, double fraction) {
  const std::size_t k = static_cast<std::size_t>(fraction * (values.size() - 1));
  std::nth_element(values.begin(), values.begin() + k, values.end());
  return values[k];
}

// Both methods within a fraction of a pixel of the true disparity, and one
// thread writes the same files as two.
TEST_F(CliTest, ScansSynthesizedCapturesToTheTrueDepth) {
  sl3d::SimRig rig = sl3d::SimRig::scaled(kWidth, kHeight);  // as synth scales it
  const cv::Mat truth = sl3d::VirtualSensor(rig).ground_truth().depth;

  // The default SGBM range of 256 disparities would leave only 64 usable
  // columns at this width; the parameter file also exercises --params.
  const double fb = rig.focal_px * rig.baseline_mm;
  for (const std::string method : {"phaseshift", "sgbm"}) {
    SCOPED_TRACE(method);
    const fs::path out = empty_dir("scan_" + method), one = empty_dir("scan1_" + method);
    std::vector<std::string> extra;
    if (method == "sgbm") extra = {"--params", sgbm_params()};
    const RunResult r = scan(method, synth_dir(), q(), out, cat(extra, {"--threads", "2"}));
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(scan(method, synth_dir(), q(), one, cat(extra, {"--threads", "1"})).exit_code, 0);
    EXPECT_TRUE(slurp(out / "cloud.ply") == slurp(one / "cloud.ply"));
    EXPECT_TRUE(slurp(out / "depth.png") == slurp(one / "depth.png"));

    const Ply ply = read_ply(out / "cloud.ply");
    ASSERT_EQ(ply.cols, kWidth);
    ASSERT_EQ(ply.rows, kHeight);
    const cv::Mat preview = cv::imread((out / "depth.png").string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(preview.type(), CV_8UC3);
    ASSERT_EQ(preview.rows, truth.rows);
    ASSERT_GT(preview.cols, truth.cols);  // the depth, then its colour bar

    std::vector<double> errors;  // |disparity error| in pixels
    int covered = 0;
    for (int pixel = 0; pixel < kWidth * kHeight; ++pixel) {
      const int index = ply.grid[pixel];
      const cv::Vec3b colour = preview.at<cv::Vec3b>(pixel / kWidth, pixel % kWidth);
      ASSERT_EQ(index >= 0, colour != cv::Vec3b(0, 0, 0)) << "preview disagrees at " << pixel;
      if (index < 0) continue;
      ASSERT_LT(index, static_cast<int>(ply.xyz.size()));
      ++covered;
      const double z = truth.at<double>(pixel / kWidth, pixel % kWidth);
      // In disparity, where both methods' errors do not grow with depth.
      if (std::isfinite(z)) errors.push_back(std::fabs(fb / ply.xyz[index][2] - fb / z));
    }
    EXPECT_EQ(covered, static_cast<int>(ply.xyz.size())) << "every point has one pixel";
    EXPECT_GT(covered, kWidth * kHeight / 2);
    ASSERT_FALSE(errors.empty());
    // Phase shift resolves far finer than block matching at this size.
    const double typical = method == "phaseshift" ? 0.1 : 0.3;
    EXPECT_LT(percentile(errors, 0.5), typical);
    EXPECT_LT(percentile(errors, 0.9), 2 * typical);
  }
}

TEST_F(CliTest, RefusesBadCapturesNamingTheFile) {
  struct Case {
    const char* what;
    const char* method;
    const char* culprit;  // the damaged file, which the message must name
    std::function<void(const fs::path&)> damage;
  };
  const cv::Mat small(kHeight - 8, kWidth, CV_8UC1, cv::Scalar(90));
  const cv::Mat colour(kHeight, kWidth, CV_8UC3, cv::Scalar(90, 90, 90));
  const std::vector<Case> cases = {
      {"missing frame", "phaseshift", "cam1_05.png", [](const fs::path& f) { fs::remove(f); }},
      {"frame of another size", "phaseshift", "cam0_07.png",
       [&](const fs::path& f) { cv::imwrite(f.string(), small); }},
      {"truncated PNG", "phaseshift", "cam0_02.png",
       [](const fs::path& f) { write_text(f, slurp(f).substr(0, slurp(f).size() / 2)); }},
      {"colour frame", "phaseshift", "cam0_01.png",
       [&](const fs::path& f) { cv::imwrite(f.string(), colour); }},
      {"missing right image", "sgbm", "cam1.png", [](const fs::path& f) { fs::remove(f); }},
  };
  const fs::path images = root_ / "damaged";
  fs::copy(synth_dir(), images);
  const fs::path out = empty_dir("out");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const fs::path file = images / c.culprit;
    const std::string intact = slurp(file);
    c.damage(file);
    expect_clean_failure(scan(c.method, images, q(), out), 1, c.culprit, out);
    write_text(file, intact);
  }
  expect_clean_failure(scan("phaseshift", root_ / "no_such_dir", q(), out), 1, "no_such_dir", out);
}

// Q files and every kind of key file (scan's method parameters, detect's
// board parameters) end in one line naming the file and, for a key file,
// the line and the key.
TEST_F(CliTest, RefusesBadQAndKeyFilesNamingTheLineAndKey) {
  const std::string board = "unit_length: 20\nn_circles_x: 7\nn_circles_y: 5\n";
  struct Case {
    const char* use;  // "q", "phaseshift", "sgbm" (--params) or "board" (detect)
    std::string text;  // empty: no file at all
    const char* culprit;
  };
  const std::vector<Case> cases = {
      {"q", "", "bad.yaml: no such file"},
      {"q", "P: 1\n", "no matrix under the key"},
      {"q", "Q: !!opencv-matrix\n  rows: 3\n  cols: 3\n  dt: d\n  data: [1,0,0, 0,1,0, 0,0,1]\n",
       "\"Q\" is 3x3"},
      {"phaseshift", "min_contrast: 10\nmin_contarst: 5\n", "line 2: unknown key 'min_contarst'"},
      {"phaseshift", "fit_width: 4\n", "'fit_width' must be 3 or 5"},
      {"phaseshift", "min_disparity: 10\nmax_disparity: 5\n",
       "line 1: 'min_disparity' must be below max_disparity"},
      {"sgbm", "block_size: 5.5\n", "line 1: 'block_size' must be an integer"},
      {"board", "unit_length: 20  # mm\n", "'n_circles_x'"},
      {"board", board + "origin_x: 7\n", "'origin_x'"},
      {"board", board + "do_smoothing: 2\n", "'do_smoothing' must be 0 or 1"},
  };
  const std::string image = (raw_dir() / "cam0.png").string();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.culprit);
    const fs::path file = empty_dir("files") / "bad.yaml";
    if (!c.text.empty()) write_text(file, c.text);
    const fs::path out = empty_dir("out");
    const std::string use = c.use;
    RunResult r;
    if (use == "q") {
      r = scan("phaseshift", synth_dir(), file, out);
    } else if (use == "board") {
      r = run({"detect", "--board", "pellux", "--params", file.string(), image});
    } else {
      r = scan(use, synth_dir(), q(), out, {"--params", file.string()});
    }
    expect_clean_failure(r, 1, c.culprit, out);
    EXPECT_NE(r.err.find(file.string()), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

// A scan that measures nothing or gives non-finite points writes no cloud.
TEST_F(CliTest, WritesNoCloudOfNoPointsOrNonFinitePoints) {
  auto q_file = [&](const char* name, const char* data) {
    const fs::path q = root_ / name;
    write_text(q, std::string("Q: !!opencv-matrix\n  rows: 4\n  cols: 4\n  dt: d\n  data: [") +
                      data + "]\n");
    return q;
  };
  const fs::path out = empty_dir("out");
  // W = 0 for every disparity: no point.
  const fs::path zero = q_file("zero.yaml", "1,0,0,0, 0,1,0,0, 0,0,0,1, 0,0,0,0");
  expect_clean_failure(scan("phaseshift", synth_dir(), zero, out), 1, "measured no point", out);
  // Finite entries whose products overflow: infinite coordinates.
  const fs::path huge = q_file("huge.yaml", "1e308,1e308,0,0, 0,1,0,0, 0,0,0,1, 0,0,0,1");
  expect_clean_failure(scan("phaseshift", synth_dir(), huge, out), 1,
                       huge.string() + ": the calibration gives", out);
}

TEST_F(CliTest, RefusesUnwritableOutputAndBadUsage) {
  const fs::path missing_dir = root_ / "no_such_dir";
  const fs::path out = empty_dir("out");
  const std::string ply = (out / "cloud.ply").string(), png = (out / "d.png").string();
  const struct {
    std::vector<std::string> args;  // after the scan's inputs
    int code;
    std::string culprit;
  } cases[] = {
      {{"-o", (missing_dir / "cloud.ply").string()}, 1, (missing_dir / "cloud.ply").string()},
      {{"-o", out.string()}, 1, out.string()},
      {{"-o", ply, "--bogus"}, 2, "--bogus"},
      {{}, 2, "--output"},
      // Exports that cannot be written right are refused before measuring;
      // every output path passes the check -o does.
      {{"-o", ply, "--depth-png", png, "--depth-range", "600:nan"}, 2, "--depth-range"},
      {{"-o", ply, "--depth-range", "600:900"}, 2, "needs --depth-png"},
      {{"-o", ply, "--depth-tiff", (out / "d.tiff").string(), "--xyz-tiff",
        (out / "./d.tiff").string()},
       2, "same file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.culprit);
    expect_clean_failure(run(cat({"scan", "--method", "phaseshift", "--images",
                                  synth_dir().string(), "--q", q().string()},
                                 c.args)),
                         c.code, c.culprit, out);
  }
  expect_clean_failure(run({"frobnicate"}), 2, "frobnicate", "");
  expect_clean_failure(run({"synth", "--out", out.string(), "--width", "321"}), 2, "--width", out);

  const RunResult help = run({"scan", "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("cam1_12.png"), std::string::npos) << help.out;
  // Every command has its page, and `help` refuses what has none.
  for (const char* command : {"synth", "demo", "calib-info", "detect", "calibrate", "patterns",
                              "board", "help"}) {
    const RunResult page = run({"help", command});
    EXPECT_EQ(page.exit_code, 0) << command;
    EXPECT_NE(page.out.find("usage: sl3d"), std::string::npos) << command;
  }
  expect_clean_failure(run({"help", "frobnicate"}), 2, "frobnicate", "");
}

// An output path that names a device is written through, one that names a
// symbolic link replaces the link's target, and a full disk leaves the old
// file as it was.
TEST_F(CliTest, OutputsNeverReplaceDevicesOrLinks) {
  const fs::path out = empty_dir("out_nodes");
  if (fs::exists("/dev/null")) {
    const RunResult r = run({"scan", "--method", "phaseshift", "--images", synth_dir().string(),
                             "--q", q().string(), "-o", "/dev/null"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
  }
  write_text(out / "target.ply", "old");
  fs::create_symlink(out / "target.ply", out / "cloud.ply");
  RunResult r = scan("phaseshift", synth_dir(), q(), out);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(fs::is_symlink(out / "cloud.ply"));
  EXPECT_EQ(slurp(out / "target.ply").rfind("ply\n", 0), 0u);

  write_text(out / "target.ply", "old");
  r = scan("phaseshift", synth_dir(), q(), out, {}, "trap '' XFSZ; ulimit -f 100;");
  expect_clean_failure(r, 1, (out / "cloud.ply").string());
  EXPECT_EQ(slurp(out / "target.ply"), "old");
  EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()), 3);
}

// Each damaged file gets its own line on stderr naming it; the exit status
// says whether a route the generators take still loads, and scan takes the
// same verdict.
TEST_F(CliTest, ReportsEveryCorruptCalibrationFileWithoutCrashing) {
  auto overwrite_start = [](const fs::path& f, const void* bytes, std::size_t size) {
    std::string text = slurp(f);
    text.replace(0, size, static_cast<const char*>(bytes), size);
    write_text(f, text);
  };
  auto drop_cam0_p = [](const fs::path& d) {
    const std::string text = slurp(d / "cam0_param.yaml");
    const std::size_t from = text.find("cam0_P:"), to = text.find("cam0_D:");
    write_text(d / "cam0_param.yaml", text.substr(0, from) + text.substr(to));
  };
  struct Case {
    const char* what;
    std::function<void(const fs::path&)> damage;
    int exit_code;
    std::vector<std::string> culprits;  // one stderr line each, in order
    std::vector<std::string> report;    // in the report on stdout
    bool scan = false;                  // also through scan
  };
  const std::vector<Case> cases = {
      {"intact", [](const fs::path&) {}, 0, {},
       {"image size 320x256 (cam0_param.yaml)", "binary form", "loads", "uses the binary form",
        "baseline 100.", "Q:", "maps: 320x256"}},
      {"truncated hmat0.dat",
       [](const fs::path& d) { write_text(d / "hmat0.dat", slurp(d / "hmat0.dat").substr(0, 40)); },
       0, {"hmat0.dat: truncated"}, {"uses the camera files"}, true},
      {"absurd rect.param header",
       [&](const fs::path& d) {
         const std::int32_t huge = 2000000000;
         overwrite_start(d / "rect.param", &huge, sizeof huge);
       },
       0, {"rect.param: tables of 2000000000 pixels"}, {"uses the camera files"}},
      {"absurd map header",
       [&](const fs::path& d) {
         const std::int32_t huge[3] = {5, 1 << 30, 1 << 30};  // type, cols, rows
         overwrite_start(d / "rect0.map", huge, sizeof huge);
       },
       0, {"rect0.map: corrupt map file"}, {"uses the binary form"}},
      {"cam0_param.yaml without cam0_P", drop_cam0_p, 0, {"cam0_param.yaml: missing key \"cam0_P\""},
       {"uses the binary form"}},
      {"nothing loads",
       [&](const fs::path& d) {
         fs::remove(d / "hmat1.dat");
         drop_cam0_p(d);
       },
       1, {"hmat1.dat: missing", "cam0_param.yaml: missing key", "no usable calibration"}, {},
       true},
      {"empty directory",
       [](const fs::path& d) {
         fs::remove_all(d);
         fs::create_directory(d);
       },
       1, {"holds neither the binary form nor the camera files"}, {}},
      {"garbage everywhere",
       [](const fs::path& d) {
         std::string noise(3000, '\0');
         for (std::size_t i = 0; i < noise.size(); ++i) noise[i] = char((i * 7919u) >> 3);
         for (const auto& entry : fs::directory_iterator(d)) write_text(entry.path(), noise);
       },
       1,
       {"rect.param: cannot be checked", "cam0_param.yaml: not a valid YAML file",
        "cam1_param.yaml: not a valid YAML file", "stereo_param.yaml: not a valid YAML file",
        "rect0.map: corrupt", "rect1.map: corrupt", "no usable calibration"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const fs::path dir = root_ / "calib_damaged";
    fs::remove_all(dir);
    fs::copy(raw_dir() / "calib", dir);
    c.damage(dir);
    const RunResult r = run({"calib-info", dir.string()});
    EXPECT_EQ(r.exit_code, c.exit_code) << r.out << r.err;
    std::vector<std::string> lines;
    std::istringstream err(r.err);
    for (std::string line; std::getline(err, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), c.culprits.size()) << r.err;
    for (std::size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(lines[i].rfind("sl3d: " + dir.string(), 0), 0u) << lines[i];
      EXPECT_NE(lines[i].find(c.culprits[i]), std::string::npos) << lines[i];
    }
    for (const std::string& expected : c.report) {
      EXPECT_NE(r.out.find(expected), std::string::npos) << expected << " not in:\n" << r.out;
    }
    if (!c.scan) continue;
    const fs::path out = empty_dir("out");
    const RunResult scan = run({"scan", "--method", "phaseshift", "--images", raw_dir().string(),
                                "--calib", dir.string(), "-o", (out / "cloud.ply").string()});
    if (c.exit_code == 0) {
      EXPECT_EQ(scan.exit_code, 0) << scan.err;
    } else {
      expect_clean_failure(scan, 1, "no usable calibration", out);
    }
  }
}

TEST_F(CliTest, RefusesRawCapturesThatDoNotFitTheCalibration) {
  sl3d::SimRig other;
  other.width = kWidth + 16;
  other.height = kHeight;
  const fs::path calib = empty_dir("calib_other_size");
  ASSERT_TRUE(sl3d::write_calibration_directory(sl3d::default_raw_cameras(other), calib.string()));
  const fs::path out = empty_dir("out");
  const std::vector<std::string> scan = {"scan", "--method", "phaseshift", "--images",
                                         raw_dir().string(), "-o", (out / "cloud.ply").string()};
  expect_clean_failure(run(cat(scan, {"--calib", calib.string()})), 1, "336x256", out);
  // Only the binary form, which states no size: the tables do not fit.
  for (const char* f : {"cam0_param.yaml", "cam1_param.yaml", "stereo_param.yaml"}) {
    fs::remove(calib / f);
  }
  expect_clean_failure(run(cat(scan, {"--calib", calib.string()})), 1, "rect.param", out);
  // A stated size whose pixel count overflows int is still checked.
  write_text(calib / "stereo_param.yaml", "oldcamSize: [ 65536, 65536 ]\n");
  const RunResult info = run({"calib-info", calib.string()});
  EXPECT_NE(info.err.find("65536x65536 images need 4294967296"), std::string::npos) << info.err;

  expect_clean_failure(run(cat(scan, {"--calib", calib.string(), "--q", q().string()})), 2,
                       "--calib", out);
  expect_clean_failure(run(cat(scan, {"--q", q().string(), "--mode", "1"})), 2, "--mode", out);
}

TEST_F(CliTest, CalibrateRefusesBadInputAndKeepsTheOldDirectory) {
  const fs::path files = empty_dir("calibrate_files");
  const std::string params = (boards() / "board_params.yaml").string();
  std::vector<std::string> left, right;
  for (int view = 0; view < 6; ++view) {
    left.push_back((boards() / cv::format("left_%02d.png", view)).string());
    right.push_back((boards() / cv::format("right_%02d.png", view)).string());
  }
  // An earlier calibration that a failed run must leave alone, beside a
  // file of the user's that no run may delete.
  const fs::path calib = root_ / "kept_calib";
  fs::create_directories(calib);
  write_text(calib / "cam0_param.yaml", "earlier");
  write_text(calib / "notes.txt", "mine");
  auto calibrate = [&](const std::vector<std::string>& l, const std::vector<std::string>& r,
                       const std::string& prefix = "", const fs::path& to = "") {
    return run(cat(cat(cat({"calibrate", "--board", "pellux", "--params", params, "--left"}, l),
                       cat({"--right"}, r)),
                   {"-o", (to.empty() ? calib : to).string()}),
               prefix);
  };
  auto with = [](std::vector<std::string> images, std::size_t at, const std::string& image) {
    images[at] = image;
    return images;
  };

  write_text(files / "corrupt.png", slurp(left[2]).substr(0, 300));
  cv::imwrite((files / "small.png").string(), cv::Mat(128, 160, CV_8UC1, cv::Scalar(128)));
  cv::imwrite((files / "blank.png").string(), cv::Mat(256, 320, CV_8UC1, cv::Scalar(128)));
  const std::string corrupt = (files / "corrupt.png").string();
  const std::string small = (files / "small.png").string();
  const std::string blank = (files / "blank.png").string();
  struct Case {
    std::vector<std::string> left, right;
    std::string culprit;
  };
  const std::vector<Case> cases = {
      {with(left, 2, corrupt), right, corrupt},
      {left, with(right, 1, small), small},
      {{blank, blank}, right, "left camera"},
      {{left[0], left[1], blank, blank}, {blank, blank, right[2], right[3]}, "no view"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.culprit);
    expect_clean_failure(calibrate(c.left, c.right), 1, c.culprit, "");
    EXPECT_EQ(slurp(calib / "cam0_param.yaml"), "earlier");
    EXPECT_EQ(std::distance(fs::directory_iterator(calib), fs::directory_iterator()), 2);
  }
  // A disk that fills up (file size limit; the signal ignored so that the
  // write fails) is a failed write, not a calibration.
  const RunResult full = calibrate(left, right, "trap '' XFSZ; ulimit -f 200;");
  EXPECT_EQ(full.exit_code, 1);
  EXPECT_NE(full.err.find("sl3d: " + calib.string() + ": cannot write the calibration files\n"),
            std::string::npos)
      << full.err;
  EXPECT_EQ(slurp(calib / "cam0_param.yaml"), "earlier");

  // An image left out is a warning, not a failure; it reports NaN. The
  // right list is one shorter: that camera and the pose use what it holds.
  RunResult r = calibrate(with(left, 1, blank), {right.begin(), right.end() - 1});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.err.find("6 left and 5 right images"), std::string::npos) << r.err;
  const std::regex image_line(R"((left|right) +\S+: 0 Success, \d+ markers, reprojection error ([0-9.]+) px)");
  int images = 0;
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), image_line), end; it != end; ++it) {
    ++images;
    EXPECT_LT(std::stod((*it)[2]), 0.5) << (*it)[0];
  }
  EXPECT_GE(images, 6) << r.out;  // a few small views go unrecognised
  EXPECT_TRUE(std::regex_search(r.out, std::regex(R"(\nstereo: [1-4] views)"))) << r.out;
  EXPECT_EQ(run({"calib-info", calib.string()}).exit_code, 0);
  EXPECT_NE(r.err.find(blank + ": board not recognised (2 Few_Contours), image left out"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.out.find("left  " + blank + ": 2 Few_Contours, 0 markers, reprojection error nan"),
            std::string::npos)
      << r.out;
  EXPECT_NE(slurp(calib / "cam0_param.yaml"), "earlier");  // replaced
  EXPECT_EQ(slurp(calib / "notes.txt"), "mine");            // kept
  EXPECT_TRUE(fs::is_regular_file(calib / "rect.param"));

  expect_clean_failure(run({"calibrate", "--board", "pellux", "--params", params, "--left",
                            left[0], "-o", calib.string()}),
                       2, "right", "");
  // An output that names a file, or lies in a missing directory.
  for (const fs::path& out : {files / "corrupt.png", files / "missing" / "calib"}) {
    expect_clean_failure(calibrate({left[0]}, {right[0]}, "", out), 1, out.string(), "");
    EXPECT_FALSE(fs::exists(files / "missing"));
  }
}

TEST_F(CliTest, DetectRefusesBadInputNamingTheFile) {
  const std::string good = (boards() / "left_01.png").string();
  const std::string params = (boards() / "board_params.yaml").string();
  const fs::path files = empty_dir("detect_files");
  auto detect = [&](const fs::path& results, const std::vector<std::string>& images) {
    return run(cat({"detect", "--board", "pellux", "--params", params, "--result-dir",
                    results.string()},
                   images));
  };

  // A bad image is reported in one line each and the others still processed.
  write_text(files / "corrupt.png", slurp(good).substr(0, 300));
  const std::string corrupt = (files / "corrupt.png").string();
  const std::string missing = (files / "missing.png").string();
  fs::path out = empty_dir("detect_out");
  RunResult r = detect(out, {corrupt, missing, good});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 2) << r.err;
  for (const std::string& bad : {corrupt, missing}) {
    EXPECT_NE(r.err.find("sl3d: " + bad + ": "), std::string::npos) << r.err;
  }
  EXPECT_NE(r.out.find(good + ": 0 Success"), std::string::npos) << r.out;
  EXPECT_TRUE(fs::exists(out / "left_01_result.png"));
  EXPECT_FALSE(fs::exists(out / "corrupt_result.png"));
  EXPECT_FALSE(fs::exists(out / "missing_result.png"));

  // A board that is not there is a result, not an error: exit 3 and no
  // result files for it, not even an earlier run's.
  out = empty_dir("detect_out");
  cv::imwrite((files / "blank.png").string(), cv::Mat(256, 320, CV_8UC1, cv::Scalar(128)));
  write_text(out / "blank_result.png", "from an earlier run");
  r = detect(out, {(files / "blank.png").string(), good});
  EXPECT_EQ(r.exit_code, 3) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_NE(r.out.find("blank.png: 2 Few_Contours, 0/88 circles numbered"), std::string::npos)
      << r.out;
  EXPECT_FALSE(fs::exists(out / "blank_result.png"));
  EXPECT_FALSE(fs::exists(out / "blank_points.csv"));

  // A result directory that cannot be made.
  write_text(files / "a_file", "");
  for (const fs::path& results : {files / "a_file", files / "a_file" / "sub"}) {
    expect_clean_failure(detect(results, {good}), 1, results.string(), "");
  }
  expect_clean_failure(run({"detect", "--board", "square", "--params", params, good}), 2,
                       "square", "");

  // A single view of the one-ring board, as `synth --boards` writes it
  // with its own key file, is recognised.
  const fs::path single = root_ / "single_view";
  ASSERT_EQ(run({"synth", "--boards", single.string(), "--board", "quill", "--views", "1",
                 "--width", "400", "--height", "320"})
                .exit_code,
            0);
  r = run({"detect", "--board", "quill", "--params", (single / "board_params.yaml").string(),
           (single / "board_00.png").string()});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("board_00.png: 0 Success"), std::string::npos) << r.out;
  expect_clean_failure(run({"detect", "--board", "pellux", "--params", params}), 2, "image", "");
}

}  // namespace
