#ifndef SL3D_CAMERA_CAMERA_PINHOLE_H_
#define SL3D_CAMERA_CAMERA_PINHOLE_H_

// The ideal (distortion-free) pinhole camera: image size, name, intrinsics K,
// pose (R, T) and the 3x4 perspective projection matrix (PPM) K·[R|T].
//
// Use it wherever a camera without lens distortion is needed: the rectified
// cameras of a stereo pair, triangulation by sight rays, pose estimation.
// The distorted real camera is DistortCamera, the camera with undistortion
// maps UndistortCamera; both derive from this class.
//
// Frames: a world point X maps to camera coordinates R·X + T and to the pixel
// (column, row) = dehomogenised P·(X, 1). The camera centre in world
// coordinates is -Rᵀ·T.

#include <fstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/export.h>

class SL3D_EXPORT PinHoleCamera {
 public:
  // Identity K, R, P, P_inv, RT, RT_inv; zero T.
  PinHoleCamera(cv::Size_<int> size, std::string name);
  // Copies size and name and gives every matrix its own deep copy: a copy
  // never shares a buffer with its source.
  PinHoleCamera(const PinHoleCamera& other);
  PinHoleCamera& operator=(const PinHoleCamera& other);
  virtual ~PinHoleCamera();

  // PPM -> K, R, T: K and R from the RQ decomposition of P's left 3x3 block
  // (signs as the decomposition gives them), T = K⁻¹·P(:, 3).
  // Leaves P, P_inv, RT and RT_inv alone.
  void decompose();

  // K, R, T -> P = K·[R|T] (row 3 stays [0 0 0 1]) and P_inv = P⁻¹.
  // RT and RT_inv are NOT updated, so get_center() keeps answering from the
  // previous pose; call setPPM with the composed rows to refresh them.
  void compose();

  // Takes the top-left 3x4 block of `ppm` as the PPM and brings every member
  // up to date: P, then K/R/T by decompose(), P_inv, RT = [R T; 0 0 0 1] and
  // RT_inv. RT_inv is written in place, so views from get_center() follow.
  void setPPM(cv::Mat_<double>& ppm);

  // Pixel of world point X: project3d_2d(P, X).
  cv::Point_<double> project_forw(const cv::Point3_<double>& X) const;

  // Unnormalised world direction of the ray through pixel p:
  // first three rows of P_inv·(p.x, p.y, 1, 0). A direction, not a point.
  cv::Point3_<double> project_back(const cv::Point_<double>& p) const;

  // project_back(p) scaled to unit length; (0, 0, 0) for a zero direction.
  cv::Point3_<double> get_sight_vector(const cv::Point_<double>& p) const;

  // Camera centre in world coordinates as a 3x1 view into RT_inv (shares its
  // elements, no copy): later pose updates by setPPM show through it.
  cv::Mat get_center() const;

  // YAML/XML persistence through cv::FileStorage. fs == nullptr: the camera
  // opens, writes/reads and closes its own file name + "_param.yaml",
  // including the "CameraName" key; otherwise it uses the caller's open
  // storage and leaves it open. Keys: name + "_size", "_K", "_R", "_T", "_P".
  // load() ends in setPPM of the stored "_P", so a hand-edited "_P" wins over
  // the stored K, R, T. Both return whether the storage was open.
  virtual bool save(cv::FileStorage* fs);
  virtual bool load(cv::FileStorage* fs);

  // Pose (Rodrigues rvec, tvec; object -> camera) of a known object from
  // 2-D/3-D correspondences with this camera's K and no distortion. Returns
  // the library result; the camera's own members do not change.
  virtual bool solvePnPRansac(cv::Mat& rvec, cv::Mat& tvec,
                              std::vector<cv::Point_<float>>& image_points,
                              std::vector<cv::Point3_<float>>& object_points);
  virtual bool solvePnP(cv::Mat& rvec, cv::Mat& tvec,
                        std::vector<cv::Point_<float>>& image_points,
                        std::vector<cv::Point3_<float>>& object_points);

  // Bare 96-byte record of P's rows 0..2: twelve native-order (little-endian
  // on the target) binary64 values row by row, from the stream's current
  // position. Both return true when the stream is neither failed nor bad;
  // load_hmat applies the record with setPPM only when it was read whole.
  bool save_hmat(std::ofstream& os);
  bool load_hmat(std::ifstream& is);

  cv::Size size;
  std::string name;
  cv::Mat_<double> K;       // 3x3 intrinsics [fx s cx; 0 fy cy; 0 0 1]
  cv::Mat_<double> R;       // 3x3 rotation, world -> camera
  cv::Mat T;                // 3x1 translation, world -> camera (own type kept)
  cv::Mat_<double> P;       // 4x4: rows 0..2 = K·[R|T], row 3 = [0 0 0 1]
  cv::Mat_<double> P_inv;   // P⁻¹
  cv::Mat_<double> RT;      // [R T; 0 0 0 1] (cam_from_world)
  cv::Mat_<double> RT_inv;  // RT⁻¹ (world_from_cam); column 3 is the centre
};

// Pixel of X under a 3x4 or 4x4 projection M: y = M·(X, 1), result
// (y0, y1) / y2. No check for y2 == 0 (gives infinities).
SL3D_EXPORT cv::Point_<double> project3d_2d(cv::Mat_<double>& M, cv::Point3_<double>& X);

namespace sl3d {

// Brings every pose member in line with K, R and T: compose() for P and
// P_inv, then setPPM with the composed rows for RT and RT_inv, which
// compose() leaves alone. K, R, T come back as the decomposition of P
// (equal up to rounding for a proper rotation and positive focal lengths).
SL3D_EXPORT void refresh_pose(PinHoleCamera& cam);

}  // namespace sl3d

#endif  // SL3D_CAMERA_CAMERA_PINHOLE_H_
