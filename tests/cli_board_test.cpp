// `sl3d board` as a user meets it: the SVG and the PNG are to scale, and
// the PNG, seen by a camera at tilts up to 45 degrees and rolled all round,
// is recognised by `sl3d detect` with the key file written beside it: every
// circle at its true index on the three-ring board, the ring at its origin
// index on the one-ring board (whose axes follow the ring's neighbours, so
// its other circles are numbered right when the board is held as that
// family needs). Bad requests are refused before anything is written.

#include <cmath>
#include <cstdio>
#include <map>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <sl3d/sim/board_families.h>
#include <sl3d/sim/board_renderer.h>

#include "cli_util.h"

namespace sl3d {
namespace {

using namespace sl3d_test;

constexpr int kCols = 9, kRows = 6;  // the defaults
constexpr double kSpacingMm = 30.0;
constexpr int kDpi = 300;

struct Printed {
  BoardDesign design;  // the layout the tool was asked for
  cv::Mat png;
  cv::FileStorage keys;
};

class BoardCommand : public ToolTest {
 protected:
  static void SetUpTestSuite() {
    ToolTest::SetUpTestSuite();
    for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
      const RunResult r = run({"board", "--board", family_name(family), "--out",
                                   (root_ / family_name(family)).string()});
      ASSERT_EQ(r.exit_code, 0) << r.err;
      ASSERT_NE(r.out.find("285.0 x 195.0 mm"), std::string::npos) << r.out;
    }
  }

  static fs::path out(BoardFamily family) { return root_ / family_name(family); }

  // What the tool printed for `family`, read once.
  static const Printed& printed(BoardFamily family) {
    static std::map<BoardFamily, Printed> read;
    if (read.count(family) == 0) {
      Printed& p = read[family];
      make_board_design(family, kCols, kRows, kSpacingMm, p.design);
      p.png = cv::imread((out(family) / "board.png").string(), cv::IMREAD_UNCHANGED);
      p.keys.open((out(family) / "board_params.yaml").string(), cv::FileStorage::READ);
    }
    return read.at(family);
  }

  // Renders the printed PNG at each pose with a 1280 x 1024 camera, runs
  // `sl3d detect` on the views and returns, per view, the centre of every
  // numbered circle by marker index, and the circles' true centres.
  struct Views {
    std::vector<std::map<int, cv::Point2d>> found;
    std::vector<BoardRendering> truth;
  };
  static Views detect(BoardFamily family, const std::vector<ViewAngles>& angles,
                      const std::string& name) {
    const Printed& p = printed(family);
    const double ppmm = kDpi / 25.4;
    const BoardTexture texture(
        p.png, ppmm, board_raster_offset(p.design, ppmm) + cv::Point2d(p.design.margin, p.design.margin) * ppmm);
    const BoardLayout layout = board_layout(p.design);
    BoardCamera camera;
    camera.width = 1280;
    camera.height = 1024;
    camera.fx = camera.fy = 1400.0;
    camera.cx = 639.5;
    camera.cy = 511.5;
    BoardImaging imaging;
    imaging.noise_sigma = 1.0;
    imaging.blur_sigma_px = 0.5;
    imaging.supersampling = 1;  // the bitmap is filtered to the pixel
    const fs::path views_dir = root_ / name, results = root_ / (name + "_results");
    fs::create_directories(views_dir);
    std::vector<std::string> args = {"detect", "--board", family_name(family), "--params",
                                     (out(family) / "board_params.yaml").string(),
                                     "--result-dir", results.string()};
    Views views;
    for (std::size_t k = 0; k < angles.size(); ++k) {
      const ViewAngles& a = angles[k];
      imaging.seed = 1 + std::uint32_t(k);
      views.truth.push_back(render_board(
          texture, layout, board_pose_facing(layout, 700.0, a.tilt_x, a.tilt_y, a.roll), camera,
          imaging));
      const fs::path image = views_dir / ("view_" + std::to_string(k) + ".png");
      cv::imwrite(image.string(), views.truth.back().image);
      args.push_back(image.string());
    }
    const RunResult r = run(args);
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    for (std::size_t k = 0; k < angles.size(); ++k) {
      std::istringstream csv(
          slurp(results / ("view_" + std::to_string(k) + "_points.csv")));
      std::map<int, cv::Point2d> found;
      std::string line;
      std::getline(csv, line);  // header
      int index;
      double x, y;
      while (std::getline(csv, line) && std::sscanf(line.c_str(), "%d,%lf,%lf", &index, &x, &y) == 3) {
        found[index] = {x, y};
      }
      views.found.push_back(found);
    }
    return views;
  }

};

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

// The marker index the key file's grid gives the circle at board
// coordinates (gx, gy) from the origin circle.
int marker_index(const cv::FileStorage& keys, int gx, int gy) {
  return (int(keys["origin_x"]) - gx) * int(keys["n_circles_y"]) + int(keys["origin_y"]) - gy;
}

// Nearly every circle numbered (the roundness filter may drop one), and
// every numbered one at its true centre: index_of(i, j) is the marker index
// circle (i, j) of the printed board must get.
template <typename IndexOf>
void expect_numbered_right(const std::map<int, cv::Point2d>& found,
                           const BoardRendering& truth, IndexOf index_of) {
  EXPECT_GE(found.size(), std::size_t(kCols * kRows - 2));
  std::map<int, cv::Point2d> expected;
  for (int j = 0; j < kRows; ++j)
    for (int i = 0; i < kCols; ++i) expected[index_of(i, j)] = truth.centres[j * kCols + i];
  for (const auto& [index, centre] : found) {
    const auto it = expected.find(index);
    ASSERT_NE(it, expected.end()) << "index " << index << " is no circle's";
    EXPECT_LT(cv::norm(centre - it->second), 1.5) << "index " << index;
  }
}

TEST_F(BoardCommand, SvgAndPngAreToScale) {
  for (BoardFamily family : {BoardFamily::kPellux, BoardFamily::kQuill}) {
    SCOPED_TRACE(family_name(family));
    const std::string svg = slurp(out(family) / "board.svg");
    EXPECT_NE(svg.find("width=\"285mm\" height=\"195mm\" viewBox=\"0 0 285 195\""),
              std::string::npos);
    const std::regex circle("<circle cx=\"([0-9.]+)\" cy=\"([0-9.]+)\" r=\"([0-9.]+)\" fill=\"#000000\"");
    std::vector<cv::Point2d> centres;
    for (std::sregex_iterator it(svg.begin(), svg.end(), circle), end; it != end; ++it) {
      centres.emplace_back(std::stod((*it)[1].str()), std::stod((*it)[2].str()));
    }
    ASSERT_EQ(centres.size(), std::size_t(kCols * kRows));
    for (const cv::Point2d& c : centres) {
      double nearest = 1e9;
      for (const cv::Point2d& other : centres)
        if (other != c) nearest = std::min(nearest, cv::norm(other - c));
      EXPECT_NEAR(nearest, kSpacingMm, 1e-9);
    }

    // The PNG states its resolution, and its circles are spacing * dpi apart.
    const std::string png = slurp(out(family) / "board.png");
    const std::size_t phys = png.find("pHYs");
    ASSERT_NE(phys, std::string::npos);
    const auto byte = [&](std::size_t i) { return std::uint32_t(std::uint8_t(png[i])); };
    const std::uint32_t per_metre = byte(phys + 4) << 24 | byte(phys + 5) << 16 | byte(phys + 6) << 8 | byte(phys + 7);
    EXPECT_EQ(per_metre, std::uint32_t(std::lround(kDpi / 0.0254)));
    const Printed& p = printed(family);
    cv::Mat labels, stats, blobs;
    const int n = cv::connectedComponentsWithStats(p.png < 128, labels, stats, blobs);
    ASSERT_EQ(n, kCols * kRows + 1);  // and the background
    for (int k = 1; k + 1 < n; ++k) {
      const cv::Point2d a(blobs.at<double>(k, 0), blobs.at<double>(k, 1));
      const cv::Point2d b(blobs.at<double>(k + 1, 0), blobs.at<double>(k + 1, 1));
      if (std::fabs(a.y - b.y) < 1.0) {
        EXPECT_NEAR(b.x - a.x, kSpacingMm * kDpi / 25.4, 0.05);
      }
    }
  }
}

TEST_F(BoardCommand, PelluxIsNumberedRightAtEveryTiltAndRoll) {
  const Printed& p = printed(BoardFamily::kPellux);
  const Views views = detect(BoardFamily::kPellux, tilts_and_rolls(), "pellux_views");
  for (std::size_t k = 0; k < views.found.size(); ++k) {
    SCOPED_TRACE("view " + std::to_string(k));
    expect_numbered_right(views.found[k], views.truth[k], [&](int i, int j) {
      // Origin ring O at (1, rows - 2); x towards X on its right, y up.
      return marker_index(p.keys, i - 1, kRows - 2 - j);
    });
  }
}

TEST_F(BoardCommand, QuillRingIsTheOriginAtEveryTiltAndRoll) {
  const Printed& p = printed(BoardFamily::kQuill);
  const cv::Point ring(kCols - 3, 1);
  const int origin = marker_index(p.keys, 0, 0);
  const Views views = detect(BoardFamily::kQuill, tilts_and_rolls(), "quill_views");
  for (std::size_t k = 0; k < views.found.size(); ++k) {
    const auto it = views.found[k].find(origin);
    ASSERT_NE(it, views.found[k].end()) << "view " << k;
    EXPECT_LT(cv::norm(it->second - views.truth[k].centres[ring.y * kCols + ring.x]), 1.5)
        << "view " << k;
  }
  // Held turned about its vertical axis, top farther away, the board's x
  // runs up from the ring and its y to the left.
  const std::vector<ViewAngles>& poses = board_views(BoardFamily::kQuill);
  const Views held = detect(BoardFamily::kQuill, {poses.begin(), poses.begin() + 2}, "quill_held");
  for (std::size_t k = 0; k < held.found.size(); ++k) {
    SCOPED_TRACE("held view " + std::to_string(k));
    expect_numbered_right(held.found[k], held.truth[k], [&](int i, int j) {
      return marker_index(p.keys, ring.y - j, ring.x - i);
    });
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
