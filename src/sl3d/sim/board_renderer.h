#ifndef SL3D_SIM_BOARD_RENDERER_H_
#define SL3D_SIM_BOARD_RENDERER_H_

// A renderer of circle-grid calibration boards seen by an ideal pinhole
// camera, with the true image position of every circle.
//
// Use it to test board recognition on images whose geometry is known
// exactly. The board lies in its own plane z = 0 with circle (i, j) centred
// at (i * spacing, j * spacing, 0); the pose maps board points to camera
// coordinates Xc = R * Xb + t (R from the Rodrigues vector), and the camera
// projects Xc to pixel (fx * x / z + cx, fy * y / z + cy), with pixel
// centres at integer coordinates as in OpenCV.

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/export.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {

// A circle drawn as a ring: the disc minus a concentric hole.
struct SL3D_EXPORT BoardRing {
  int i = 0;                 // grid column of the circle
  int j = 0;                 // grid row of the circle
  double hole_radius = 0.0;  // board units, below the circle radius
};

struct SL3D_EXPORT BoardLayout {
  int circles_x = 7;
  int circles_y = 5;
  double spacing = 20.0;  // centre distance, board units
  double radius = 6.0;    // circle radius, board units
  double margin = 15.0;   // board edge beyond the outermost centres
  bool dark_circles = true;      // dark circles on a light board, else light on dark
  std::vector<BoardRing> rings;  // circles that carry a hole
};

struct SL3D_EXPORT BoardCamera {
  int width = 640;
  int height = 480;
  double fx = 800.0;
  double fy = 800.0;
  double cx = 319.5;
  double cy = 239.5;
};

struct SL3D_EXPORT BoardPose {
  cv::Vec3d rvec;  // Rodrigues rotation board -> camera
  cv::Vec3d tvec;  // board origin in camera coordinates
};

// Grey levels and sensor effects. Final value = clip(blur(shade) + noise).
struct SL3D_EXPORT BoardImaging {
  double light = 220.0;       // the light part of the board
  double dark = 30.0;         // the dark part of the board
  double background = 110.0;  // everything off the board
  double blur_sigma_px = 0.0;  // 0 = no blur
  double noise_sigma = 0.0;    // grey levels, 0 = none
  std::uint32_t seed = 1;
  int supersampling = 4;       // n x n samples per pixel
};

struct SL3D_EXPORT BoardRendering {
  cv::Mat image;  // CV_8UC1, height x width
  // Per circle, index j * circles_x + i: the projection of the 3-D circle
  // centre, and the centre of the ellipse the circle's rim projects to.
  // They differ under perspective; the latter is what an unbiased fit of
  // the rim recovers.
  std::vector<cv::Point2d> centres;
  std::vector<cv::Point2d> ellipse_centres;
};

// The ring base markers of the three-ring board family, with the origin
// ring O at circle (i, j): X two columns further along the board's x,
// (i + 2, j), with a plain circle between them, and Y next to O at
// (i, j - 1). Seen with the board facing the camera (its x to the right,
// its y down in the image), Y lies above the O-to-X line: the handedness the
// recognizer accepts. `mirrored` puts Y at (i, j + 1), as on a board seen in
// a mirror.
SL3D_EXPORT std::vector<BoardRing> three_ring_base_markers(int i, int j, double hole_radius,
                                                           bool mirrored = false);

// The single ring base marker of the one-ring board family, the origin
// circle, at circle (i, j).
SL3D_EXPORT std::vector<BoardRing> one_ring_base_marker(int i, int j, double hole_radius);

// Renders `layout` seen from `pose`. Samples behind the camera see the
// background.
SL3D_EXPORT BoardRendering render_board(const BoardLayout& layout, const BoardPose& pose,
                                        const BoardCamera& camera = BoardCamera(),
                                        const BoardImaging& imaging = BoardImaging());

// A board as a bitmap, such as the PNG `sl3d board` writes for printing:
// grey 0 where the board is dark, 255 where it is light.
//
// Use it to render views of the very image a user prints instead of the
// analytic drawing of a layout. A sample of the board is filtered from a
// pyramid of the bitmap at the level whose pixels match the sample's
// footprint on the board (trilinear), so a bitmap much finer than the
// camera's pixels neither aliases nor shifts the circles' edges.
class SL3D_EXPORT BoardTexture {
 public:
  // `image` CV_8UC1 (copied); `pixels_per_unit` bitmap pixels per board
  // unit; `origin_px` the bitmap position (pixel centres at integer
  // coordinates) of the layout's point (0, 0), the centre of circle (0, 0).
  BoardTexture(const cv::Mat& image, double pixels_per_unit, cv::Point2d origin_px);

  // Light share 0..1 at board point (x, y), averaged over about `footprint`
  // board units; -1 off the bitmap.
  double sample(double x, double y, double footprint) const;

 private:
  double bilinear(int level, double x, double y) const;

  std::vector<cv::Mat> levels_;  // CV_32F, level k halves level k - 1
  cv::Size size_;                // of the bitmap as given
  double pixels_per_unit_;
  cv::Point2d origin_px_;
};

// Renders the bitmap board `texture` seen from `pose`; `layout` must be the
// drawing's layout (it gives the circles' true centres). Dark and light
// bitmap levels become BoardImaging's dark and light shades.
SL3D_EXPORT BoardRendering render_board(const BoardTexture& texture, const BoardLayout& layout,
                                        const BoardPose& pose,
                                        const BoardCamera& camera = BoardCamera(),
                                        const BoardImaging& imaging = BoardImaging());

// A real camera of the virtual sensor (lens distortion, pose in the world)
// looking at boards placed in the world.
//
// Use it to render the board views of a calibration, where the true
// intrinsics, distortion and pose are known. The sample rays are worked out
// once, on construction: inverting the lens model is the costly part of a
// view, and every view reuses them. It fixes its own supersampling; that of
// BoardImaging is not used.
class SL3D_EXPORT DistortedBoardCamera {
 public:
  DistortedBoardCamera(const SimCamera& camera, int supersampling = 2);

  // `layout` placed at world_from_board (board point Xb is at
  // R * Xb + t in the world). Centres: the projections through the lens of
  // the circle centre and of the undistorted image ellipse's centre (the
  // lens bends the ellipse slightly, far below a pixel at usual sizes).
  BoardRendering render(const BoardLayout& layout, const BoardPose& world_from_board,
                        const BoardImaging& imaging = BoardImaging()) const;
  // The same for a bitmap board whose drawing is `layout`.
  BoardRendering render(const BoardTexture& texture, const BoardLayout& layout,
                        const BoardPose& world_from_board,
                        const BoardImaging& imaging = BoardImaging()) const;

  // The pose of a board at world_from_board relative to this camera.
  BoardPose cam_from_board(const BoardPose& world_from_board) const;

  const SimCamera& camera() const { return camera_; }

 private:
  std::vector<cv::Point2d> distort(const std::vector<cv::Point3d>& normalized) const;
  template <typename Shader>
  BoardRendering render_with(const Shader& shader, const BoardLayout& layout,
                             const BoardPose& world_from_board, const BoardImaging& imaging) const;

  SimCamera camera_;
  int supersampling_;
  std::vector<cv::Point2f> rays_;  // normalised (x, y) per pixel sample, row-major
};

// A pose that looks at the board's middle from `distance` along the
// camera's axis, after tilting the board by `tilt_x_deg` about its x axis
// and then `tilt_y_deg` about its y axis, and turning it `roll_deg` in its
// plane.
SL3D_EXPORT BoardPose board_pose_facing(const BoardLayout& layout, double distance,
                                        double tilt_x_deg = 0.0, double tilt_y_deg = 0.0,
                                        double roll_deg = 0.0);

}  // namespace sl3d

#endif  // SL3D_SIM_BOARD_RENDERER_H_
