// The board renderer's ground truth: projected centres, the polarity and
// ring holes where they should be, and the perspective offset of the image
// ellipse's centre.

#include <gtest/gtest.h>

#include <cmath>

#include <sl3d/sim/board_renderer.h>

namespace {

using sl3d::BoardLayout;

unsigned char at(const cv::Mat& img, const cv::Point2d& p) {
  return img.at<unsigned char>(int(std::lround(p.y)), int(std::lround(p.x)));
}

TEST(BoardRenderer, FrontalBoardCentresAndShades) {
  BoardLayout layout;
  layout.rings = {{2, 1, 3.0}};
  const sl3d::BoardPose pose = sl3d::board_pose_facing(layout, 400.0);
  const sl3d::BoardRendering r = sl3d::render_board(layout, pose);
  ASSERT_EQ(r.centres.size(), 35u);
  // Frontal at 400: 2 px per board unit, board middle (60, 40) on the axis.
  const cv::Point2d c = r.centres[1 * 7 + 2];  // circle (2, 1)
  EXPECT_NEAR(c.x, 319.5 + (40 - 60) * 2.0, 1e-9);
  EXPECT_NEAR(c.y, 239.5 + (20 - 40) * 2.0, 1e-9);
  for (size_t k = 0; k < r.centres.size(); ++k)
    EXPECT_LT(cv::norm(r.centres[k] - r.ellipse_centres[k]), 1e-9);

  const sl3d::BoardImaging shades;
  EXPECT_EQ(at(r.image, r.centres[0]), shades.dark);
  EXPECT_EQ(at(r.image, c), shades.light);                        // the ring's hole
  EXPECT_EQ(at(r.image, c + cv::Point2d(9.0, 0.0)), shades.dark);  // the ring
  EXPECT_EQ(at(r.image, r.centres[0] + cv::Point2d(20.0, 0.0)), shades.light);
  EXPECT_EQ(at(r.image, cv::Point2d(2, 2)), shades.background);

  layout.dark_circles = false;
  const sl3d::BoardRendering light = sl3d::render_board(layout, pose);
  EXPECT_EQ(at(light.image, light.centres[0]), shades.light);
  EXPECT_EQ(at(light.image, light.centres[0] + cv::Point2d(20.0, 0.0)), shades.dark);
}

TEST(BoardRenderer, TiltedBoardEllipseCentresLieBeyondTheProjectedCentres) {
  BoardLayout layout;
  layout.radius = 8.0;
  const sl3d::BoardRendering r =
      sl3d::render_board(layout, sl3d::board_pose_facing(layout, 400.0, 50.0));
  // Tilted about x, the board's far half (+y) is farther away. The image
  // ellipse of a circle is larger on its near side, so its centre lies
  // towards the near side of the projected circle centre.
  const cv::Point2d near_side = r.centres[0] - r.centres[7];  // towards -y
  for (size_t k = 0; k < r.centres.size(); ++k) {
    const cv::Point2d offset = r.ellipse_centres[k] - r.centres[k];
    EXPECT_GT(offset.dot(near_side), 0.0) << k;
    EXPECT_LT(cv::norm(offset), 1.0);
  }
}

}  // namespace
