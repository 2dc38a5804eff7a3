// `sl3d demo`, the whole life of the virtual sensor at full size, in a
// program of its own so that it runs beside the other tool tests.

#include <cmath>
#include <regex>

#include "cli_util.h"

namespace {

using namespace sl3d_test;

class CliDemoTest : public ToolTest {};

TEST_F(CliDemoTest, MeasuresBothMethodsCloseToTheTruth) {
  const fs::path out = root_ / "demo";
  const RunResult r = run({"demo", "--out", out.string()});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const char* name : {"phaseshift.ply", "sgbm.ply", "phaseshift_depth.png", "sgbm_depth.png",
                           "calib/hmat0.dat", "calib/cam0_param.yaml", "boards/left_00.png",
                           "boards/right_11.png", "boards/board_params.yaml",
                           "boards/true_calib/hmat0.dat"}) {
    EXPECT_TRUE(fs::is_regular_file(out / name)) << name;
  }
  const std::regex report(R"(  mode (\d): (\d+) points[^\n]* p95 ([0-9.]+) mm)");
  std::string modes;
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), report), end; it != end; ++it) {
    modes += (*it)[1];
    EXPECT_GT(std::stoi((*it)[2]), 1280 * 1024 / 2) << (*it)[0];
    EXPECT_LT(std::stod((*it)[3]), 5.0) << (*it)[0];
  }
  // Phase shift in every mode, once more through the true calibration, then
  // block matching.
  EXPECT_EQ(modes, "01200") << r.out;
  // The calibration made from the board views is close to the true cameras.
  const std::regex camera(R"(focal length error ([-+0-9.]+) / ([-+0-9.]+) px of [0-9.]+, principal point error ([-+0-9.]+) / ([-+0-9.]+) px)");
  int cameras = 0;
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), camera), end; it != end; ++it) {
    ++cameras;
    for (int k = 1; k <= 4; ++k) EXPECT_LT(std::fabs(std::stod((*it)[k])), 2.0) << (*it)[0];
  }
  EXPECT_EQ(cameras, 2) << r.out;
  std::smatch baseline;
  ASSERT_TRUE(std::regex_search(r.out, baseline, std::regex(R"(baseline error ([-+0-9.]+) mm)")));
  EXPECT_LT(std::fabs(std::stod(baseline[1])), 0.1);
}

}  // namespace
