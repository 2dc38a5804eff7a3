#ifndef SL3D_SIM_VIRTUAL_SENSOR_H_
#define SL3D_SIM_VIRTUAL_SENSOR_H_

// The virtual sensor: a small ray-casting renderer of a projector and two
// rectified pinhole cameras looking at a scene of simple surfaces whose true
// geometry is known.
//
// Use it to test a measuring pipeline without hardware: it renders the 13
// phase-shift frames per camera that PhaseShift expects, a uniformly lit
// textured stereo pair for SGBMaching, the pair's Q matrix and the true depth
// of every pixel of camera 0.
//
// Frames: the world frame is camera 0's: x to the right, y down, z forward
// (millimetres). Camera 1 sits at (baseline, 0, 0) with the same orientation,
// so the pair is rectified and the disparity of a point at depth Z is
// focal * baseline / Z. The projector sits halfway between the cameras and
// throws the very frames make_phase_shift_patterns makes for its size (or
// frames handed in, such as those `sl3d patterns` wrote); the periods
// camera 0 sees fall inside the usable range 25..96 for depths of about
// 600..2000 mm.

#include <array>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/export.h>
#include <sl3d/patterns/phase_shift_patterns.h>

namespace sl3d {

struct SL3D_EXPORT SimPlane {
  cv::Vec3d point;   // any point of the plane
  cv::Vec3d normal;  // need not be unit length
};

struct SL3D_EXPORT SimSphere {
  cv::Vec3d center;
  double radius = 0.0;
};

// Surfaces with a procedural albedo: a smooth random texture tied to the 3-D
// surface point, so both cameras see the same texture.
struct SL3D_EXPORT SimScene {
  std::vector<SimPlane> planes;
  std::vector<SimSphere> spheres;
  double texture_cell_mm = 3.0;   // feature size of the albedo texture
  double texture_strength = 0.6;  // 0 = uniform albedo, 1 = full range

  // A tilted back wall at about 1100 mm and a sphere of radius 180 mm
  // in front of it, filling most of camera 0's view.
  static SimScene default_scene();
};

struct SL3D_EXPORT SimRig {
  int width = 1280;
  int height = 1024;
  double focal_px = 1400.0;     // both cameras, square pixels
  double baseline_mm = 100.0;   // camera 1 at +x
  // The projector's image: its size and the columns per stripe period of
  // the frames it throws (128 periods must fit the width).
  int projector_width = 2048;
  int projector_height = 1536;
  int projector_period_px = 16;

  // The default rig at another image size: the focal length scales with
  // the width (1400 px at 1280), so the scene fills the view alike.
  static SimRig scaled(int width, int height);

  // Principal point of both cameras (image centre).
  double cx() const { return (width - 1) / 2.0; }
  double cy() const { return (height - 1) / 2.0; }
};

// Light and sensor model of one capture. Grey value =
//   ambient + albedo * shading * (projector_gain * pattern) + noise,
// with `pattern` in [0, 1] the projector frame's grey level / 255 where the
// ray from the projector meets the surface, interpolated bilinearly between
// projector pixels (the projector's optics blur its pixels by about one
// pixel), then optional Gaussian blur, clipped to 0..255.
struct SL3D_EXPORT SimLight {
  double ambient = 20.0;
  double projector_gain = 200.0;  // grey levels of a fully lit white surface
  double fringe_contrast = 1.0;   // modulation depth of the fringes, 0..1
  double blur_sigma_px = 0.0;     // 0 = no blur
  double noise_sigma = 1.0;       // grey levels
  std::uint32_t seed = 1;
  int supersampling = 2;          // n x n samples per pixel
};

// What rendering yields for one camera pixel grid.
struct SL3D_EXPORT SimGroundTruth {
  cv::Mat depth;  // CV_64F, camera 0's z per pixel centre; NaN where no surface
  // Row-major 4x4 Q: (column, row, disparity, 1) -> homogeneous point in
  // camera 0's frame.
  std::array<double, 16> q{};
};

// A real camera: intrinsics, Brown-Conrady lens distortion (OpenCV's model
// and coefficient order) and its pose, x_cam = cam_from_world_R * x_world +
// cam_from_world_t. Its images are raw: distorted and not rectified.
struct SL3D_EXPORT SimCamera {
  cv::Size size;
  cv::Matx33d K = cv::Matx33d::eye();
  cv::Vec<double, 5> distortion{0, 0, 0, 0, 0};  // k1, k2, p1, p2, k3
  cv::Matx33d cam_from_world_R = cv::Matx33d::eye();
  cv::Vec3d cam_from_world_t{0, 0, 0};

  cv::Vec3d center() const;
  // Distorted pixel of a world point (cv::projectPoints).
  cv::Point2d project(const cv::Vec3d& world) const;
  // Normalised coordinates (x, y; z = 1 in the camera frame) of the ray
  // through `pixel`: the lens model inverted by Newton's method until the
  // ray projects to within about 1e-12 px of the pixel. Agrees with
  // cv::undistortPoints under a criterion that tight, at a fifth of its
  // cost; the renderers invert millions of samples per image. Where the
  // model folds over (far outside the image) it falls back to OpenCV's.
  cv::Point2d undistort(const cv::Point2d& pixel) const;
};

// Two real cameras around the rig's projector, as a calibration would find
// them: camera 0 at the world origin, camera 1 about one baseline to the
// right, both turned by a fraction of a degree, with unequal focal lengths,
// off-centre principal points and visible distortion. Scales with the
// rig's width.
SL3D_EXPORT std::array<SimCamera, 2> default_raw_cameras(const SimRig& rig);

class SL3D_EXPORT VirtualSensor {
 public:
  // Projects make_phase_shift_patterns(rig.projector_width,
  // rig.projector_height, rig.projector_period_px). Throws
  // std::invalid_argument when those refuse the rig's projector.
  VirtualSensor(const SimRig& rig = SimRig(), const SimScene& scene = SimScene::default_scene());
  // Projects `projector_frames` instead: 13 CV_8UC1 frames of the rig's
  // projector size laid out with its period, in setpict index order (as
  // `sl3d patterns` writes them). Throws std::invalid_argument otherwise.
  VirtualSensor(const SimRig& rig, const SimScene& scene,
                std::vector<cv::Mat> projector_frames);

  const SimRig& rig() const { return rig_; }
  const SimScene& scene() const { return scene_; }

  // The 13 frames of `camera` (0 or 1) in setpict index order: black, white,
  // seven Gray-code frames (most significant bit first), four fringes.
  // Each is CV_8UC1, height x width.
  std::vector<cv::Mat> render_phase_shift(int camera, const SimLight& light = SimLight()) const;

  // One uniformly lit image of `camera` showing the scene's texture.
  cv::Mat render_textured(int camera, const SimLight& light = SimLight()) const;

  // The same, seen by a real camera: raw (distorted, unrectified) images.
  std::vector<cv::Mat> render_phase_shift(const SimCamera& camera,
                                          const SimLight& light = SimLight()) const;
  cv::Mat render_textured(const SimCamera& camera, const SimLight& light = SimLight()) const;

  // True depth of camera 0 and the pair's Q matrix.
  SimGroundTruth ground_truth() const;

  // The pixels of `camera0` a phase-shift measurement with `camera1` can
  // measure at all: CV_8UC1 of camera0's size, 255 where every one of 3 x 3
  // sample rays spread over the pixel meets a surface that is
  //   - lit by the projector (inside its image, not in a shadow, facing it),
  //   - inside the usable period range 25..96 of the projector's stripes,
  //   - seen by camera1 (inside its image, not hidden, facing it);
  // 0 elsewhere. Pixels that straddle a depth edge, a shadow's or the lit
  // area's border, or the end of the usable periods are not measurable:
  // no single surface point explains them. camera0 may be a view that
  // exists only in software, such as the left rectified camera of a
  // calibration (rectified_camera, sim_calibration.h), so that the mask
  // lies on the pixel grid of that calibration's range grid.
  cv::Mat measurable_pixels(const SimCamera& camera0, const SimCamera& camera1) const;

  // Distance of a world point to the nearest surface of the scene: the
  // error of a measured point, whatever camera model produced it.
  double distance_to_scene(const cv::Vec3d& point) const;

  // Projector period index (0..127) and absolute phase seen at a 3-D point,
  // as the decoder should recover them (exposed for tests).
  int period_index_at(const cv::Vec3d& point) const;
  double absolute_phase_at(const cv::Vec3d& point) const;

  const PhaseShiftPatternLayout& pattern_layout() const { return layout_; }

 private:
  struct Hit;
  struct RayCamera;
  RayCamera rectified_camera(int camera) const;
  RayCamera real_camera(const SimCamera& camera) const;
  std::vector<cv::Mat> render_frames(const RayCamera& camera, const SimLight& light) const;
  cv::Mat render_texture(const RayCamera& camera, const SimLight& light) const;
  bool cast(const cv::Vec3d& origin, const cv::Vec3d& dir, Hit& hit) const;
  cv::Point2d projector_pixel(const cv::Vec3d& point) const;
  bool lit_by_projector(const cv::Vec3d& point, const cv::Point2d& pixel) const;
  bool measurable(const Hit& hit, const SimCamera& camera1) const;
  void sample_frames(const cv::Point2d& pixel, double* values) const;
  double albedo(const cv::Vec3d& point) const;

  SimRig rig_;
  SimScene scene_;
  PhaseShiftPatternLayout layout_;
  std::vector<cv::Mat> frames_;  // what the projector throws, setpict order
  cv::Vec3d projector_center_;
  double projector_focal_px_ = 0.0;
  double projector_cx_ = 0.0;
  double projector_cy_ = 0.0;
};

}  // namespace sl3d

#endif  // SL3D_SIM_VIRTUAL_SENSOR_H_
