#ifndef SL3D_CAMERA_STEREO_CAMERA_H_
#define SL3D_CAMERA_STEREO_CAMERA_H_

// The rectified stereo pair: two ideal cameras whose image rows correspond,
// the maps that turn raw captures into their images, and the reprojection
// matrix Q that turns (column, row, disparity) into a 3-D point.
//
// Use StereoCamera to rectify raw captures of a calibrated pair and to
// triangulate matches. Build it from a calibrated pair of DistortCameras
// (the rectifying constructor), or load it from a calibration directory:
//
//   "hmat0.dat", "hmat1.dat", "rect.param"   binary form (fastest to load):
//       create_StereoCamera_from_Hmats / store_StereoCamera_to_Hmats
//   "<name>_param.yaml", "rect0.map", "rect1.map"   YAML form:
//       StereoCamera::save / StereoCamera::load
//   "cam0_param.yaml", "cam1_param.yaml"     the unrectified cameras:
//       create_StereoCamera (rectifies them)
//
// Frames: points come out in the pair's world frame, which is the left
// rectified camera's frame unless convert_coordinate_system moved it.
//
// Ownership: a StereoCamera owns its cameras and maps by value. The
// factories return heap objects that the caller deletes.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/camera/camera_distort.h>
#include <sl3d/camera/camera_undistort.h>
#include <sl3d/export.h>

class SL3D_EXPORT StereoCamera {
 public:
  // An empty pair of image size `size`: cameras "stereoL"/"stereoR" with
  // identity projections, Q empty. Filled by load() or the factories.
  explicit StereoCamera(cv::Size_<int> size);

  // Rectifies the calibrated pair cams[0] (left), cams[1] (right), whose
  // right camera's R, T are its pose relative to the left one. `alpha` and
  // `flags` go unchanged to cv::stereoRectify; `newSize` is the rectified
  // image size (0 x 0 keeps the input size; a size with one non-zero
  // component is taken as given); fill0/fill1 colour the pixels the maps do
  // not reach when a camera remaps into an empty image. Q is the one
  // cv::stereoRectify returns.
  StereoCamera(DistortCamera* cams, double alpha, int flags, cv::Size_<int> newSize,
               cv::Scalar_<double> fill0, cv::Scalar_<double> fill1);

  StereoCamera(const StereoCamera& other);
  StereoCamera& operator=(const StereoCamera& other);
  virtual ~StereoCamera();

  // True when the right camera's translation is mostly horizontal:
  // |T.x| > |T.y| (false on equality).
  bool is_horizontal_stereo();

  // Rectifies a side-by-side pair (left half, right half; an odd last column
  // is dropped) into a new side-by-side image of twice the rectified width.
  // Pixels the maps do not reach stay 0.
  cv::Mat remap(cv::Mat& src);

  // Recomputes Q from the two rectified cameras (used after loading):
  // Q = RT_inv(left) * [1 0 0 -cx; 0 1 0 -cy; 0 0 0 f; 0 0 -1/b d/b], with b
  // the right camera's offset along the disparity axis and d the principal
  // point difference along it.
  void recalculationQ();

  // Moves the pair into another world frame; M maps current coordinates to
  // new ones. The left camera is taken to sit at the current origin with
  // identity rotation, as it does after rectification; Q := M * Q. The maps,
  // camdis, cam0_R2 and cam1_R2 are left as they are.
  void convert_coordinate_system(cv::Mat_<double>& M);

  // Linear least squares over both projection matrices for the pixel pair
  // (pl, pr). `ok` (may be null) is false, and (0,0,0) returned, only when
  // the normal matrix is exactly singular.
  cv::Vec3d get3dposition_P(cv::Point_<double> pl, cv::Point_<double> pr, bool* ok);
  // Midpoint of the closest approach of the two sight rays; `dist` gets the
  // gap between the rays.
  cv::Vec3d get3dposition(cv::Point_<double> pl, cv::Point_<double> pr, double& dist);
  // The ray computation itself, for unit sight vectors sl, sr and centres
  // cl, cr. The baseline is read from camdis, not from cl and cr. Exactly
  // parallel rays give dist = DBL_MAX and (0,0,0).
  cv::Vec3d position_from_sv(cv::Vec3d sl, cv::Vec3d sr, double& dist, cv::Vec3d& cl,
                             cv::Vec3d& cr);
  // Q * (x, y, d, 1), divided by its fourth component (d = 0 gives
  // infinities, not an error).
  cv::Vec3d get3dposition_Q(double x, double y, double d);
  // The disparity a point at distance z in front of the pair produces.
  double convert_distance_to_disparity(double z);
  // Pose of a known target seen by both cameras (imagePoints[0] left,
  // [1] right): rotation vectors and translations of the two solutions
  // averaged. Writes the top 3x4 of `pose` (at least 3x4); false, `pose`
  // untouched, when either cv::solvePnP fails.
  bool solvePose(cv::Mat_<double>& pose, std::vector<std::vector<cv::Point2f>>& imagePoints,
                 std::vector<cv::Point3f>& objectPoints);

  // YAML form in `dir`: "<name>_param.yaml" plus "rect0.map"/"rect1.map".
  // False when a file cannot be written; a failure half-way leaves partial
  // files.
  bool save(std::string dir);
  // Reads the YAML form named after the current `name`; Q is used as
  // stored (empty when absent). False when a file does not open or read,
  // or a stored matrix is not finite or a camera not invertible; never
  // throws. A failure after the left camera leaves the pair partly loaded.
  bool load(std::string dir);

  UndistortCamera cameras[2];
  cv::Mat Q;
  std::string name;
  cv::Size oldcamSize;
  cv::Mat_<double> cam0_R2;
  cv::Mat_<double> cam1_R2;
  // Right rectified camera's centre minus the left one's.
  cv::Mat_<double> camdis;

 private:
  void name_cameras();
  void update_camdis();
  bool load_checked(const std::string& dir);
};

// Builds a rectified pair from two camera YAML files (each read as a
// DistortCamera named "cam0"/"cam1"; one path is used for both). Null when
// `paths` is empty, a file cannot be opened or read, a camera does not
// load or is not usable (a non-finite matrix, singular intrinsics, no
// image size), or the rectified pair is not finite; never throws.
SL3D_EXPORT StereoCamera* create_StereoCamera(std::vector<std::string> paths,
                                              cv::Size_<int> newSize, double alpha, int flags,
                                              cv::Scalar_<double> fill0,
                                              cv::Scalar_<double> fill1);

// Builds a pair from the binary form (full paths), read in the order hmat0,
// hmat1, rect; the first failure returns null. A record that is not a
// usable projection (non-finite, or a singular left 3x3 block such as all
// zeros) and a non-finite Q are failures too; never throws. Q is recalculated and camdis
// derived from the two centres; cam0_R2 and cam1_R2 stay empty (the binary
// form does not hold them).
SL3D_EXPORT StereoCamera* create_StereoCamera_from_Hmats(std::string hmat0, std::string hmat1,
                                                         std::string rect, cv::Size_<int> size,
                                                         cv::Scalar_<double> fill0,
                                                         cv::Scalar_<double> fill1);

// Writes the binary form. True once the three files were opened and both
// projection records written; a failed table write is not reported.
SL3D_EXPORT bool store_StereoCamera_to_Hmats(StereoCamera* sc, std::string hmat0,
                                             std::string hmat1, std::string rect);

#endif  // SL3D_CAMERA_STEREO_CAMERA_H_
