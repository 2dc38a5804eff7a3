// `sl3d board` as a user meets it: the SVG and the PNG are to scale, and
// the PNG, seen by a camera at tilts up to 45 degrees and rolled all round,
// is recognised by `sl3d detect` with the key file written beside it. Bad
// requests are refused before anything is written.

#include <cmath>
#include <cstdio>
#include <map>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <sl3d/sim/board_families.h>
#include <sl3d/sim/board_renderer.h>

#include "cli_util.h"

namespace sl3d {
namespace {

using namespace sl3d_test;

constexpr int kCols = 9, kRows = 6;  // the defaults
constexpr double kSpacingMm = 30.0;
constexpr int kDpi = 300;

class BoardCommand : public ToolTest {
 protected:
  static void SetUpTestSuite() {
    ToolTest::SetUpTestSuite();
    for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
      const RunResult r = run({"board", "--board", family_name(family), "--out",
                               out(family).string()});
      ASSERT_EQ(r.exit_code, 0) << r.err;
      ASSERT_NE(r.out.find("285.0 x 195.0 mm"), std::string::npos) << r.out;
    }
  }

  static fs::path out(BoardFamily family) { return root_ / family_name(family); }

  // Photographs the printed PNG at each pose with a 1280 x 1024 camera and
  // runs `sl3d detect` on the views with the key file. Per view: the centre
  // of every numbered circle by marker index; `truth` gets the renderings.
  static std::vector<std::map<int, cv::Point2d>> detect(BoardFamily family,
                                                        const std::vector<ViewAngles>& angles,
                                                        std::vector<BoardRendering>& truth) {
    BoardDesign design;
    make_board_design(family, kCols, kRows, kSpacingMm, design);
    const cv::Mat png = cv::imread((out(family) / "board.png").string(), cv::IMREAD_UNCHANGED);
    const BoardTexture texture = board_texture(design, png, kDpi / 25.4);
    const BoardLayout layout = board_layout(design);
    const BoardCamera camera{1280, 1024, 1400.0, 1400.0, 639.5, 511.5};
    BoardImaging imaging;
    imaging.noise_sigma = 1.0;
    imaging.blur_sigma_px = 0.5;
    imaging.supersampling = 1;  // the bitmap is filtered to the pixel
    const fs::path results = out(family) / "results";
    std::vector<std::string> args = {"detect", "--board", family_name(family), "--params",
                                     (out(family) / "board_params.yaml").string(),
                                     "--result-dir", results.string()};
    for (std::size_t k = 0; k < angles.size(); ++k) {
      const ViewAngles& a = angles[k];
      imaging.seed = 1 + std::uint32_t(k);
      truth.push_back(render_board(
          texture, layout, board_pose_facing(layout, 700.0, a.tilt_x, a.tilt_y, a.roll), camera,
          imaging));
      args.push_back((out(family) / ("view_" + std::to_string(k) + ".png")).string());
      cv::imwrite(args.back(), truth.back().image);
    }
    const RunResult r = run(args);
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    std::vector<std::map<int, cv::Point2d>> found(angles.size());
    for (std::size_t k = 0; k < angles.size(); ++k) {
      std::istringstream csv(slurp(results / ("view_" + std::to_string(k) + "_points.csv")));
      std::string line;
      std::getline(csv, line);  // header
      int index;
      double x, y;
      while (std::getline(csv, line) &&
             std::sscanf(line.c_str(), "%d,%lf,%lf", &index, &x, &y) == 3)
        found[k][index] = {x, y};
    }
    return found;
  }
};

TEST_F(BoardCommand, SvgAndPngAreToScale) {
  const std::regex circle(
      "<circle cx=\"([0-9.]+)\" cy=\"([0-9.]+)\" r=\"[0-9.]+\" fill=\"#000000\"");
  for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
    SCOPED_TRACE(family_name(family));
    const std::string svg = slurp(out(family) / "board.svg");
    EXPECT_NE(svg.find("width=\"285mm\" height=\"195mm\" viewBox=\"0 0 285 195\""),
              std::string::npos);
    std::vector<cv::Point2d> centres;
    for (std::sregex_iterator it(svg.begin(), svg.end(), circle), end; it != end; ++it)
      centres.emplace_back(std::stod((*it)[1].str()), std::stod((*it)[2].str()));
    ASSERT_EQ(centres.size(), std::size_t(kCols * kRows));
    for (const cv::Point2d& c : centres) {
      double nearest = 1e9;
      for (const cv::Point2d& other : centres)
        if (other != c) nearest = std::min(nearest, cv::norm(other - c));
      EXPECT_NEAR(nearest, kSpacingMm, 1e-9);
    }

    // The PNG states its resolution (where its circles land on a view at
    // that resolution is checked below).
    const std::string bytes = slurp(out(family) / "board.png");
    const std::size_t phys = bytes.find("pHYs");
    ASSERT_NE(phys, std::string::npos);
    std::uint32_t per_metre = 0;
    for (std::size_t b = phys + 4; b < phys + 8; ++b)
      per_metre = per_metre << 8 | std::uint8_t(bytes[b]);
    EXPECT_EQ(per_metre, std::uint32_t(std::lround(kDpi / 0.0254)));
  }
}

// Tilts of 20 to 45 degrees about axes all round, rolled into every
// quadrant. Nearer frontal every circle is about equally round, and the
// search's three-sigma roundness filter then drops a circle or a ring's
// hole now and then, whatever the hole's size.
std::vector<ViewAngles> tilts_and_rolls() {
  std::vector<ViewAngles> views;
  const double tilts[] = {20.0, 30.0, 38.0, 45.0};
  for (int k = 0; k < 4; ++k) {
    const double axis = k * 105.0 * CV_PI / 180.0;
    views.push_back({tilts[k] * std::cos(axis), tilts[k] * std::sin(axis), 95.0 * k});
  }
  return views;
}

// Every circle gets its true index: the three-ring board at every tilt and
// roll; the one-ring board, whose axes follow the ring's neighbours, held
// as that family needs (turned about its vertical axis, top farther away).
TEST_F(BoardCommand, PrintedBoardsAreNumberedRight) {
  for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
    SCOPED_TRACE(family_name(family));
    const bool pellux = family == BoardFamily::kPellux;
    cv::FileStorage keys((out(family) / "board_params.yaml").string(), cv::FileStorage::READ);
    // The index the key file's grid gives board coordinates (gx, gy).
    const auto index = [&](int gx, int gy) {
      return (int(keys["origin_x"]) - gx) * int(keys["n_circles_y"]) + int(keys["origin_y"]) - gy;
    };
    const std::vector<ViewAngles>& held = board_views(family);
    const std::vector<ViewAngles> angles =
        pellux ? tilts_and_rolls() : std::vector<ViewAngles>(held.begin(), held.begin() + 2);
    std::vector<BoardRendering> truth;
    const std::vector<std::map<int, cv::Point2d>> found = detect(family, angles, truth);
    for (std::size_t k = 0; k < found.size(); ++k) {
      SCOPED_TRACE("view " + std::to_string(k));
      std::map<int, cv::Point2d> expected;
      for (int j = 0; j < kRows; ++j)
        for (int i = 0; i < kCols; ++i) {
          // Three rings: origin O at (1, rows - 2), x towards X on its
          // right, y up. One ring at (cols - 3, 1): x up, y to the left.
          const int at = pellux ? index(i - 1, kRows - 2 - j) : index(1 - j, kCols - 3 - i);
          expected[at] = truth[k].centres[j * kCols + i];
        }
      // The roundness filter may drop a circle.
      EXPECT_GE(found[k].size(), std::size_t(kCols * kRows - 2));
      for (const auto& [at, centre] : found[k]) {
        ASSERT_EQ(expected.count(at), 1u) << "index " << at << " is no circle's";
        EXPECT_LT(cv::norm(centre - expected[at]), 1.5) << "index " << at;
      }
    }
  }
}

TEST_F(BoardCommand, RefusesBadRequestsBeforeWriting) {
  std::ofstream(root_ / "a_file") << "x";
  const fs::path out = root_ / "refused";
  const struct {
    std::vector<std::string> args;
    int code;
    std::string culprit;
    fs::path output;
  } cases[] = {
      {{"--spacing", "-5", "--out", out.string()}, 2, "--spacing", out},
      {{"--nx", "11", "--ny", "8", "--page", "a4", "--out", out.string()}, 2, "does not fit", out},
      {{"--page", "b5", "--out", out.string()}, 2, "--page", out},
      {{"--nx", "3", "--out", out.string()}, 2, "--nx", out},
      {{"--out", (root_ / "a_file" / "b").string()}, 1, "a_file", root_ / "a_file" / "b"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"board", "--board", "pellux"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    expect_refused(run(args), c.code, c.culprit, c.output);
  }
}

}  // namespace
}  // namespace sl3d
