// Every file of tests/bad_inputs/ (see its README) through the tool and,
// where a library loader reads it, through the library: one error line
// naming the file, exit code 1, no output, and no exception out of a loader.
// The tool runs under a memory and time limit, so a regression fails here
// instead of taking the machine down.

#include <memory>

#include <opencv2/imgcodecs.hpp>

#include <sl3d/camera/stereo_camera.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/sim/sim_calibration.h>
#include <sl3d/sim/virtual_sensor.h>

#include "cli_util.h"

namespace {

using namespace sl3d_test;

#if defined(__SANITIZE_ADDRESS__)
#define SL3D_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SL3D_TEST_ASAN 1
#endif
#endif

#ifdef SL3D_TEST_ASAN
// ASan reserves terabytes of address space; its own limit bounds the heap.
const char kLimits[] = "export ASAN_OPTIONS=\"$ASAN_OPTIONS:hard_rss_limit_mb=4096\";";
#else
const char kLimits[] = "ulimit -v 4194304;";
#endif
const char kTimeout[] = "timeout 120";

fs::path bad(const std::string& name) { return fs::path(SL3D_BAD_INPUTS_DIR) / name; }

// How a file reaches the tool.
enum class Use { kBoardParams, kPhaseShiftParams, kSgbmParams, kQ, kCameraFile, kHmat0 };

struct Case {
  const char* file;
  Use use;
  const char* problem;  // part of the error line
  bool every_command = false;  // board files: also through calibrate
};

const Case kCases[] = {
    {"board_params_n_circles_overflow.yaml", Use::kBoardParams, "'n_circles_x' must be", true},
    {"board_params_n_circles_neg_product.yaml", Use::kBoardParams, "'n_circles_x' must be"},
    {"board_params_1.5G_markers.yaml", Use::kBoardParams, "line 6: NUL byte"},
    {"board_params_72M_markers.yaml", Use::kBoardParams, "line 1: unsupported directive"},
    {"board_params_bin_param_huge.yaml", Use::kBoardParams, "'bin_param0' must be"},
    {"params_huge_min_disparity.yaml", Use::kPhaseShiftParams, "'min_disparity' must be"},
    {"sgbm_params_block_huge.yaml", Use::kSgbmParams, "'block_size' must be"},
    {"sgbm_params_block_9999.yaml", Use::kSgbmParams, "'block_size' must be"},
    {"hmat0_nan.dat", Use::kHmat0, "does not hold a valid projection matrix"},
    {"hmat0_zero.dat", Use::kHmat0, "does not hold a valid projection matrix"},
    {"cam_yaml_length_error.yaml", Use::kCameraFile, "not a valid YAML file: line 3: NUL byte"},
    {"cam0_param_yaml_parser_hang.yaml", Use::kCameraFile, "not a valid YAML file: line 2"},
    {"cam0_param_yaml_parser_hang.yaml", Use::kQ, "not a valid YAML file: line 2"},
    {"cam0_param_K_declares_40000x40000.yaml", Use::kCameraFile,
     "line 4: a matrix of 40000 x 40000 does not match its 3 data entries"},
    {"q_sequence_root.yaml", Use::kQ, "line 1: expected 'key: value', found a sequence entry"},
    {"q_scalar_root.yaml", Use::kQ, "line 1: expected 'key: value'"},
    {"q_declares_30000x30000.yaml", Use::kQ, "a matrix of 30000 x 30000 does not match its 1"},
    {"q_rows_not_a_number.yaml", Use::kQ, "line 4: '...4' is neither a number nor a word"},
    {"cam0_param_K_bad_tag_and_rows.yaml", Use::kCameraFile, "line 4: unsupported tag"},
    {"stereo_param_bad_tag_and_cols.yaml", Use::kCameraFile, "line 5: unsupported tag"},
};

// Blank captures are enough: every file is refused before a frame is used.
class BadInputsTest : public ToolTest {
 protected:
  static void SetUpTestSuite() {
    ToolTest::SetUpTestSuite();
    const cv::Mat blank(128, 160, CV_8UC1, cv::Scalar(0));
    fs::create_directories(captures() / "calib");
    for (int frame = 0; frame < 26; ++frame) {
      cv::imwrite(cv::format("%s/cam%d_%02d.png", captures().c_str(), frame / 13, frame % 13), blank);
    }
    cv::imwrite((captures() / "cam0.png").string(), blank);
    ASSERT_TRUE(sl3d::write_calibration_directory(
        sl3d::default_raw_cameras(sl3d::SimRig::scaled(160, 128)), (captures() / "calib").string()));
    write_text(root_ / "q.yaml", "Q: !!opencv-matrix\n  rows: 4\n  cols: 4\n  dt: d\n"
                                 "  data: [1,0,0,0, 0,1,0,0, 0,0,0,1, 0,0,1,0]\n");
  }

  static fs::path captures() { return root_ / "raw"; }  // frames and calib/

  // A calibration directory holding only `names` of the good one, with
  // `file` copied over `as`.
  static fs::path calibration_with(const std::vector<std::string>& names, const fs::path& file,
                                   const std::string& as) {
    const fs::path dir = empty_dir("calib");
    for (const std::string& name : names) fs::copy(captures() / "calib" / name, dir / name);
    fs::copy_file(file, dir / as, fs::copy_options::overwrite_existing);
    return dir;
  }

  static RunResult run_guarded(const std::vector<std::string>& args) {
    return run(args, kLimits, kTimeout);
  }

  static RunResult scan(const std::string& method, const std::vector<std::string>& extra,
                        const fs::path& out) {
    return run_guarded(cat({"scan", "--method", method, "--images", captures().string(), "-o",
                            (out / "cloud.ply").string()},
                           extra));
  }

  // The library's loaders on a calibration directory: failure results, no
  // exception, and a generator that stays without a calibration.
  static void expect_loaders_refuse(const fs::path& dir) {
    const std::string d = dir.string();
    EXPECT_NO_THROW({
      std::unique_ptr<StereoCamera> binary(create_StereoCamera_from_Hmats(
          d + "/hmat0.dat", d + "/hmat1.dat", d + "/rect.param", cv::Size(160, 128),
          cv::Scalar(), cv::Scalar()));
      EXPECT_EQ(binary, nullptr);
      std::unique_ptr<StereoCamera> cameras(create_StereoCamera(
          {d + "/cam0_param.yaml", d + "/cam1_param.yaml"}, cv::Size(160, 128), -1.0, 0,
          cv::Scalar(), cv::Scalar()));
      EXPECT_EQ(cameras, nullptr);
      iPointCloudGenerator* gen = createPointCloudGenerator(0);
      ASSERT_TRUE(gen->init(160, 128));
      static_cast<PointCloudGenerator*>(gen)->verbose = 0;
      EXPECT_FALSE(gen->set_camera_params(d.c_str()));
      gen->destroy();
    });
  }
};

TEST_F(BadInputsTest, EveryFileEndsInOneErrorNamingIt) {
  const std::string image = (captures() / "cam0.png").string();
  const std::string q = (root_ / "q.yaml").string();
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.file);
    const fs::path file = bad(c.file);
    const fs::path out = empty_dir("out");
    std::vector<RunResult> runs;     // each fails in one line naming `named`
    std::vector<RunResult> reports;  // calib-info: a line per problem, then the verdict
    std::string named = file.string();
    switch (c.use) {
      case Use::kBoardParams:
        runs.push_back(run_guarded({"detect", "--board", "pellux", "--params", named, image}));
        if (c.every_command) {
          runs.push_back(run_guarded({"calibrate", "--board", "pellux", "--params", named, "--left",
                                      image, "--right", image, "-o", (out / "calib").string()}));
        }
        break;
      case Use::kPhaseShiftParams:
      case Use::kSgbmParams:
        runs.push_back(scan(c.use == Use::kSgbmParams ? "sgbm" : "phaseshift",
                            {"--q", q, "--params", named}, out));
        break;
      case Use::kQ:
        runs.push_back(scan("phaseshift", {"--q", named}, out));
        break;
      case Use::kCameraFile: {
        const fs::path dir =
            calibration_with({"cam0_param.yaml", "cam1_param.yaml"}, file, "cam0_param.yaml");
        named = (dir / "cam0_param.yaml").string();
        reports.push_back(run_guarded({"calib-info", dir.string()}));
        // scan names the file, then gives its verdict on the directory.
        const RunResult r = scan("phaseshift", {"--calib", dir.string()}, out);
        expect_clean_failure(r, 1, "cam0_param.yaml", out);
        expect_loaders_refuse(dir);
        // The same text as the pair's YAML file.
        fs::copy_file(file, dir / "stereo_param.yaml");
        StereoCamera pair(cv::Size(0, 0));
        EXPECT_NO_THROW(EXPECT_FALSE(pair.load(dir.string())));
        break;
      }
      case Use::kHmat0: {
        const fs::path dir = calibration_with({"hmat0.dat", "hmat1.dat", "rect.param"}, file,
                                              "hmat0.dat");
        named = (dir / "hmat0.dat").string();
        reports.push_back(run_guarded({"calib-info", dir.string(), "--size", "160x128"}));
        runs.push_back(scan("phaseshift", {"--calib", dir.string()}, out));
        expect_loaders_refuse(dir);
        break;
      }
    }
    for (const RunResult& r : runs) {
      expect_clean_failure(r, 1, c.problem, out);
      EXPECT_NE(r.err.find(fs::path(named).filename().string()), std::string::npos) << r.err;
    }
    for (const RunResult& r : reports) {
      EXPECT_EQ(r.exit_code, 1) << r.err;
      EXPECT_NE(r.err.find("sl3d: " + named + ": "), std::string::npos) << r.err;
      EXPECT_NE(r.err.find(c.problem), std::string::npos) << r.err;
    }
  }
}

}  // namespace
