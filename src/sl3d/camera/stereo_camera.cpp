#include <sl3d/camera/stereo_camera.h>

#include <cfloat>
#include <cmath>
#include <fstream>
#include <memory>
#include <new>

#include <opencv2/calib3d.hpp>

#include <sl3d/camera/yaml_reader.h>

namespace {

const char kBuildName[] = "undiscam";
const char kDefaultPairName[] = "stereo";

cv::Vec3d as_vec3d(const cv::Mat& m) { return cv::Vec3d(m); }

std::string pair_file(const std::string& dir, const std::string& name) {
  return dir + "/" + name + "_param." + "yaml";
}

// Upper-left 3x3 of a 4x4 identity replaced by K.
cv::Mat_<double> extended_intrinsics(const cv::Mat_<double>& K) {
  cv::Mat_<double> ext = cv::Mat_<double>::eye(4, 4);
  K.copyTo(ext(cv::Rect(0, 0, 3, 3)));
  return ext;
}

// The right camera's projection expressed in the left camera's frame.
cv::Mat_<double> right_in_left_frame(const UndistortCamera& left, const UndistortCamera& right) {
  return cv::Mat_<double>(right.P * left.RT_inv);
}

void write_size(cv::FileStorage& fs, const std::string& key, const cv::Size& size) {
  fs << key << "[:" << size.width << size.height << "]";
}

bool all_finite(const cv::Mat& m) { return cv::checkRange(m); }

// A camera whose pose members a projection can be computed from: every
// matrix finite and the intrinsics invertible. A calibration file of NaN,
// zeros or 1e308 fails here instead of giving non-finite points later.
bool usable_camera(const PinHoleCamera& cam) {
  for (const cv::Mat& m : {cv::Mat(cam.K), cv::Mat(cam.R), cam.T, cv::Mat(cam.P),
                           cv::Mat(cam.P_inv), cv::Mat(cam.RT_inv)}) {
    if (m.empty() || !all_finite(m)) return false;
  }
  const double det = cv::determinant(cam.K);
  return std::isfinite(det) && det != 0.0;
}

bool usable_pair(const StereoCamera& pair) {
  return usable_camera(pair.cameras[0]) && usable_camera(pair.cameras[1]) &&
         pair.Q.rows == 4 && pair.Q.cols == 4 && all_finite(pair.Q);
}

bool usable_source(const DistortCamera& cam) {
  return usable_camera(cam) && all_finite(cam.D) && cam.size.width > 0 && cam.size.height > 0;
}

cv::Size read_size(const cv::FileNode& node) {
  std::vector<int> v;
  if (node.isSeq()) node >> v;
  return v.size() == 2 ? cv::Size(v[0], v[1]) : cv::Size(0, 0);
}

}  // namespace

// ---------------------------------------------------------------------------
// Construction

StereoCamera::StereoCamera(cv::Size_<int> size)
    : cameras{UndistortCamera(cv::Size(0, 0), kBuildName), UndistortCamera(cv::Size(0, 0), kBuildName)},
      name(kDefaultPairName),
      oldcamSize(size) {
  name_cameras();
  for (UndistortCamera& cam : cameras) {
    cam.size = size;
    cam.fill = cv::Scalar(0, 0, 0, 0);
  }
}

StereoCamera::StereoCamera(DistortCamera* cams, double alpha, int flags, cv::Size_<int> newSize,
                           cv::Scalar_<double> fill0, cv::Scalar_<double> fill1)
    : cameras{UndistortCamera(cv::Size(0, 0), kBuildName), UndistortCamera(cv::Size(0, 0), kBuildName)},
      name(kDefaultPairName) {
  name_cameras();
  cameras[0].fill = fill0;
  cameras[1].fill = fill1;
  oldcamSize = cams[0].size;
  // A size with either component set is taken as given.
  const cv::Size rectified = (newSize.width != 0 || newSize.height != 0) ? newSize : oldcamSize;
  cameras[0].size = rectified;
  cameras[1].size = rectified;

  cv::Mat_<double> P1, P2;
  cv::stereoRectify(cams[0].K, cams[0].D, cams[1].K, cams[1].D, cams[0].size, cams[1].R,
                    cams[1].T, cam0_R2, cam1_R2, P1, P2, Q, flags, alpha, rectified,
                    &cameras[0].roi, &cameras[1].roi);
  cameras[0].setPPM(P1);
  cameras[1].setPPM(P2);
  cameras[0].initMap(cams[0], cam0_R2);
  cameras[1].initMap(cams[1], cam1_R2);
  update_camdis();
}

StereoCamera::StereoCamera(const StereoCamera& other)
    : cameras{other.cameras[0], other.cameras[1]},
      name(other.name),
      oldcamSize(other.oldcamSize),
      cam0_R2(other.cam0_R2),
      cam1_R2(other.cam1_R2) {
  other.Q.copyTo(Q);
  other.camdis.copyTo(camdis);
}

StereoCamera& StereoCamera::operator=(const StereoCamera& other) {
  if (this == &other) return *this;
  cameras[0] = other.cameras[0];
  cameras[1] = other.cameras[1];
  name = other.name;
  oldcamSize = other.oldcamSize;
  other.Q.copyTo(Q);
  other.camdis.copyTo(camdis);
  cam0_R2 = other.cam0_R2;
  cam1_R2 = other.cam1_R2;
  return *this;
}

StereoCamera::~StereoCamera() = default;

void StereoCamera::name_cameras() {
  cameras[0].name = name + "L";
  cameras[1].name = name + "R";
  // The pair warps with float maps and bilinear interpolation.
  for (UndistortCamera& cam : cameras) {
    cam.use_float_map = 1;
    cam.interpolation = 1;
  }
}

void StereoCamera::update_camdis() {
  cv::Mat diff = cameras[1].get_center() - cameras[0].get_center();
  diff.convertTo(camdis, CV_64F);
}

// ---------------------------------------------------------------------------
// Geometry of the pair

bool StereoCamera::is_horizontal_stereo() {
  const cv::Vec3d t = as_vec3d(cameras[1].T);
  return std::fabs(t[0]) > std::fabs(t[1]);
}

cv::Mat StereoCamera::remap(cv::Mat& src) {
  const int h = src.rows;
  const int half = src.cols >> 1;
  const cv::Size out = cameras[0].size;
  cv::Mat result = cv::Mat::zeros(cv::Size(2 * out.width, out.height), src.type());
  const cv::Rect sources[2] = {cv::Rect(0, 0, half, h), cv::Rect(half, 0, half, h)};
  const cv::Rect targets[2] = {cv::Rect(0, 0, out.width, out.height),
                               cv::Rect(out.width, 0, out.width, out.height)};
  for (int i = 0; i < 2; ++i) {
    cv::Mat in = src(sources[i]);
    cv::Mat target = result(targets[i]);
    cameras[i].remap(in, target);
  }
  return result;
}

void StereoCamera::recalculationQ() {
  const UndistortCamera& left = cameras[0];
  const UndistortCamera& right = cameras[1];
  const cv::Mat_<double> rel = right_in_left_frame(left, right);
  cv::Mat_<double> k_rel, r_rel;
  cv::RQDecomp3x3(rel(cv::Rect(0, 0, 3, 3)), k_rel, r_rel);
  const cv::Mat_<double> t = cv::Mat_<double>(k_rel.inv(cv::DECOMP_LU) * rel(cv::Rect(3, 0, 1, 3)));
  const double f = left.K(0, 0), cx = left.K(0, 2), cy = left.K(1, 2);
  const double cx1 = right.K(0, 2), cy1 = right.K(1, 2);
  const bool horizontal = std::fabs(t(0)) > std::fabs(t(1));
  const double d = horizontal ? cx - cx1 : cy - cy1;
  const double b = horizontal ? t(0) : t(1);
  const double inv_b = 1.0 / b;
  // For a vertical pair only the last row switches axis; the first two
  // rows keep the left camera's cx, cy.
  cv::Mat_<double> q_rect = (cv::Mat_<double>(4, 4) << 1, 0, 0, -cx,  //
                             0, 1, 0, -cy,                             //
                             0, 0, 0, f,                               //
                             0, 0, -inv_b, d * inv_b);
  Q = left.RT_inv * q_rect;
}

void StereoCamera::convert_coordinate_system(cv::Mat_<double>& M) {
  const cv::Mat_<double> m_inv = cv::Mat_<double>(M.inv(cv::DECOMP_LU));
  cv::Mat_<double> left = extended_intrinsics(cameras[0].K) * m_inv;
  cv::Mat_<double> right = extended_intrinsics(cameras[1].K) * cameras[1].RT * m_inv;
  cameras[0].setPPM(left);
  cameras[1].setPPM(right);
  Q = M * Q;
}

// ---------------------------------------------------------------------------
// Triangulation

cv::Vec3d StereoCamera::get3dposition_P(cv::Point_<double> pl, cv::Point_<double> pr, bool* ok) {
  const cv::Mat_<double>& P0 = cameras[0].P;
  const cv::Mat_<double>& P1 = cameras[1].P;
  const double u = pl.x, v = pl.y, u1 = pr.x, v1 = pr.y;
  cv::Mat_<double> A(4, 3), b(4, 1);
  for (int c = 0; c < 3; ++c) {
    A(0, c) = u * P0(2, c) - P0(0, c);
    A(1, c) = v * P0(2, c) - P0(1, c);
    A(2, c) = u1 * P1(2, c) - P1(0, c);
    A(3, c) = v1 * P1(2, c) - P1(1, c);
  }
  b(0) = P0(0, 3) - u * P0(2, 3);
  b(1) = P0(1, 3) - v * P0(2, 3);
  b(2) = P1(0, 3) - u1 * P1(2, 3);
  b(3) = P1(1, 3) - v1 * P1(2, 3);
  const cv::Mat_<double> N = A.t() * A;
  if (cv::determinant(N) == 0.0) {
    if (ok != nullptr) *ok = false;
    return cv::Vec3d(0, 0, 0);
  }
  const cv::Mat_<double> X = N.inv(cv::DECOMP_LU) * A.t() * b;
  if (ok != nullptr) *ok = true;
  return cv::Vec3d(X(0), X(1), X(2));
}

cv::Vec3d StereoCamera::get3dposition(cv::Point_<double> pl, cv::Point_<double> pr, double& dist) {
  cv::Vec3d cl = as_vec3d(cameras[0].get_center());
  cv::Vec3d cr = as_vec3d(cameras[1].get_center());
  const cv::Vec3d sl(cameras[0].get_sight_vector(pl));
  const cv::Vec3d sr(cameras[1].get_sight_vector(pr));
  return position_from_sv(sl, sr, dist, cl, cr);
}

cv::Vec3d StereoCamera::position_from_sv(cv::Vec3d sl, cv::Vec3d sr, double& dist, cv::Vec3d& cl,
                                         cv::Vec3d& cr) {
  const double k = sl.dot(sr);
  if (k == 1.0) {
    dist = DBL_MAX;
    return cv::Vec3d(0, 0, 0);
  }
  const double D = 1.0 / (1.0 - k * k);
  const cv::Vec3d d = as_vec3d(camdis);
  const double a = d.dot(sl);
  const double b = d.dot(sr);
  const double t1 = (a - b * k) * D;
  const double t2 = (a * k - b) * D;
  const cv::Vec3d p1 = cl + t1 * sl;
  const cv::Vec3d p2 = cr + t2 * sr;
  dist = cv::norm(cv::Mat(p1), cv::Mat(p2), cv::NORM_L2);
  return cv::Vec3d((p1[0] + p2[0]) * 0.5, (p1[1] + p2[1]) * 0.5, (p1[2] + p2[2]) * 0.5);
}

cv::Vec3d StereoCamera::get3dposition_Q(double x, double y, double d) {
  const cv::Mat_<double> h = cv::Mat_<double>(Q) * (cv::Mat_<double>(4, 1) << x, y, d, 1.0);
  const double w = 1.0 / h(3);
  return cv::Vec3d(h(0) * w, h(1) * w, h(2) * w);
}

double StereoCamera::convert_distance_to_disparity(double z) {
  cv::Mat_<double> p0 = cv::Mat_<double>::zeros(3, 4);
  cameras[0].K.copyTo(p0(cv::Rect(0, 0, 3, 3)));
  cv::Mat_<double> p1 = right_in_left_frame(cameras[0], cameras[1])(cv::Rect(0, 0, 4, 3)).clone();
  const cv::Vec3d offset = 0.5 * as_vec3d(camdis);
  cv::Point3_<double> X(-offset[0], -offset[1], z - offset[2]);
  const cv::Point_<double> a = project3d_2d(p0, X);
  const cv::Point_<double> b = project3d_2d(p1, X);
  return is_horizontal_stereo() ? a.x - b.x : a.y - b.y;
}

bool StereoCamera::solvePose(cv::Mat_<double>& pose,
                             std::vector<std::vector<cv::Point2f>>& imagePoints,
                             std::vector<cv::Point3f>& objectPoints) {
  cv::Mat rvec0, tvec0, rvec1, tvec1;
  if (!cv::solvePnP(objectPoints, imagePoints[0], cameras[0].K, cv::Mat(), rvec0, tvec0, false, 0)) {
    return false;
  }
  if (!cv::solvePnP(objectPoints, imagePoints[1], cameras[1].K, cv::Mat(), rvec1, tvec1, false, 0)) {
    return false;
  }
  // Plain averaging of the two rotation vectors is the chosen method.
  const cv::Mat rvec = 0.5 * (rvec0 + rvec1);
  cv::Mat right_t;
  cameras[1].T.convertTo(right_t, CV_64F);
  const cv::Mat tvec = 0.5 * (tvec0 + (tvec1 - right_t));
  cv::Mat R;
  cv::Rodrigues(rvec, R);
  R.copyTo(pose(cv::Rect(0, 0, 3, 3)));
  tvec.copyTo(pose(cv::Rect(3, 0, 1, 3)));
  return true;
}

// ---------------------------------------------------------------------------
// Persistence

bool StereoCamera::save(std::string dir) {
  cv::FileStorage fs(pair_file(dir, name), cv::FileStorage::WRITE);
  if (!fs.isOpened()) return false;
  fs << "StereoName" << name;
  if (!cameras[0].save(&fs, dir + "/rect0.map")) return false;
  if (!cameras[1].save(&fs, dir + "/rect1.map")) return false;
  fs << "Q" << Q;
  write_size(fs, "oldcamSize", oldcamSize);
  fs << "cam0_R2" << cam0_R2;
  fs << "cam1_R2" << cam1_R2;
  fs.release();
  return true;
}

bool StereoCamera::load(std::string dir) {
  // A malformed file is a failed load, not an exception out of it.
  try {
    return load_checked(dir);
  } catch (const std::exception&) {
    return false;
  }
}

bool StereoCamera::load_checked(const std::string& dir) {
  cv::FileStorage fs;
  if (!sl3d::open_yaml_storage(pair_file(dir, name), fs)) return false;
  name = fs["StereoName"].empty() ? std::string() : static_cast<std::string>(fs["StereoName"]);
  if (!cameras[0].load(&fs, dir + "/rect0.map")) return false;
  if (!cameras[1].load(&fs, dir + "/rect1.map")) return false;
  fs["Q"] >> Q;
  oldcamSize = read_size(fs["oldcamSize"]);
  cv::Mat r0, r1;
  fs["cam0_R2"] >> r0;
  fs["cam1_R2"] >> r1;
  cam0_R2 = cv::Mat_<double>(r0);
  cam1_R2 = cv::Mat_<double>(r1);
  fs.release();
  update_camdis();
  // Q may be absent (it is read as empty), but what was stored must be
  // finite.
  return usable_camera(cameras[0]) && usable_camera(cameras[1]) && all_finite(Q);
}

namespace {

// The factories' bodies; they may throw on a malformed file, which the
// factories turn into null.
std::unique_ptr<StereoCamera> pair_from_camera_files(std::vector<std::string> paths,
                                                     cv::Size newSize, double alpha, int flags,
                                                     cv::Scalar fill0, cv::Scalar fill1) {
  if (paths.empty()) return nullptr;
  if (paths.size() == 1) paths.push_back(paths[0]);
  DistortCamera cams[2] = {DistortCamera(cv::Size(0, 0), ""), DistortCamera(cv::Size(0, 0), "")};
  for (int i = 0; i < 2; ++i) {
    cv::FileStorage fs;
    if (!sl3d::open_yaml_storage(paths[i], fs)) return nullptr;
    cams[i].name = "cam" + std::to_string(i);
    if (!cams[i].load(&fs) || !usable_source(cams[i])) return nullptr;
    fs.release();
  }
  std::unique_ptr<StereoCamera> pair(
      new (std::nothrow) StereoCamera(cams, alpha, flags, newSize, fill0, fill1));
  return pair && usable_pair(*pair) ? std::move(pair) : nullptr;
}

std::unique_ptr<StereoCamera> pair_from_hmats(const std::string& hmat0, const std::string& hmat1,
                                              const std::string& rect, cv::Size size,
                                              cv::Scalar fill0, cv::Scalar fill1) {
  std::unique_ptr<StereoCamera> sc(new (std::nothrow) StereoCamera(cv::Size(0, 0)));
  if (!sc) return nullptr;
  sc->cameras[0].fill = fill0;
  sc->cameras[1].fill = fill1;
  sc->cameras[0].size = size;
  sc->cameras[1].size = size;
  sc->oldcamSize = size;
  const std::string hmats[2] = {hmat0, hmat1};
  for (int i = 0; i < 2; ++i) {
    std::ifstream in(hmats[i], std::ios::in | std::ios::binary);
    if (!in.is_open() || !sc->cameras[i].load_hmat(in) || !usable_camera(sc->cameras[i])) {
      return nullptr;
    }
  }
  std::ifstream tables(rect, std::ios::in | std::ios::binary);
  if (!tables.is_open() || !LoadRectifyTables(sc->cameras, tables)) return nullptr;
  sc->recalculationQ();
  // The binary form stores no baseline; without it the sight-ray
  // triangulation could not run on a pair loaded this way.
  sc->camdis = cv::Mat_<double>(sc->cameras[1].get_center() - sc->cameras[0].get_center());
  return usable_pair(*sc) ? std::move(sc) : nullptr;
}

}  // namespace

StereoCamera* create_StereoCamera(std::vector<std::string> paths, cv::Size_<int> newSize,
                                  double alpha, int flags, cv::Scalar_<double> fill0,
                                  cv::Scalar_<double> fill1) {
  try {
    return pair_from_camera_files(std::move(paths), newSize, alpha, flags, fill0, fill1)
        .release();
  } catch (const std::exception&) {
    return nullptr;
  }
}

StereoCamera* create_StereoCamera_from_Hmats(std::string hmat0, std::string hmat1, std::string rect,
                                             cv::Size_<int> size, cv::Scalar_<double> fill0,
                                             cv::Scalar_<double> fill1) {
  try {
    return pair_from_hmats(hmat0, hmat1, rect, size, fill0, fill1).release();
  } catch (const std::exception&) {
    return nullptr;
  }
}

bool store_StereoCamera_to_Hmats(StereoCamera* sc, std::string hmat0, std::string hmat1,
                                 std::string rect) {
  const std::string hmats[2] = {hmat0, hmat1};
  for (int i = 0; i < 2; ++i) {
    std::ofstream out(hmats[i], std::ios::out | std::ios::binary | std::ios::trunc);
    if (!out.is_open() || !sc->cameras[i].save_hmat(out)) return false;
  }
  std::ofstream tables(rect, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!tables.is_open()) return false;
  // The table write's outcome is not reported: once the file opened, the
  // store counts as done.
  SaveRectifyTables(sc->cameras, tables);
  return true;
}
