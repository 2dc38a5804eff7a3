#include "sl3d/camera/camera_pinhole.h"

#include <cmath>
#include <utility>

#include <opencv2/calib3d.hpp>

#include <sl3d/camera/yaml_reader.h>

namespace {

const cv::Range kTop3(0, 3);

// Writes src into the view dst (same size) as doubles. Unlike copyTo, this
// never silently reallocates dst, which would detach it from its parent.
void write_into(const cv::Mat& src, cv::Mat dst) {
  if (src.rows != dst.rows || src.cols != dst.cols || src.channels() != 1) {
    CV_Error(cv::Error::StsUnmatchedSizes,
             "PinHoleCamera: a matrix of " + std::to_string(src.rows) + "x" +
                 std::to_string(src.cols) + "x" + std::to_string(src.channels()) +
                 " cannot fill a view of " + std::to_string(dst.rows) + "x" +
                 std::to_string(dst.cols));
  }
  src.convertTo(dst, CV_64F);
}

cv::Mat_<double> identity4() { return cv::Mat_<double>::eye(4, 4); }

// A fresh matrix per key (empty when the key is missing): reading into a
// reused Mat would overwrite a buffer that an earlier member now shares.
cv::Mat read_matrix(const cv::FileNode& node) {
  cv::Mat m;
  node >> m;
  return m;
}

std::string own_file_name(const std::string& name) { return name + "_param." + "yaml"; }

}  // namespace

PinHoleCamera::PinHoleCamera(cv::Size_<int> size, std::string name)
    : size(size),
      name(std::move(name)),
      K(cv::Mat_<double>::eye(3, 3)),
      R(cv::Mat_<double>::eye(3, 3)),
      T(cv::Mat::zeros(3, 1, CV_64F)),
      P(identity4()),
      P_inv(identity4()),
      RT(identity4()),
      RT_inv(identity4()) {}

PinHoleCamera::PinHoleCamera(const PinHoleCamera& other)
    : size(other.size),
      name(other.name),
      K(other.K.clone()),
      R(other.R.clone()),
      T(other.T.clone()),
      P(other.P.clone()),
      P_inv(other.P_inv.clone()),
      RT(other.RT.clone()),
      RT_inv(other.RT_inv.clone()) {}

PinHoleCamera& PinHoleCamera::operator=(const PinHoleCamera& other) {
  size = other.size;
  name = other.name;
  K = other.K.clone();
  R = other.R.clone();
  T = other.T.clone();
  P = other.P.clone();
  P_inv = other.P_inv.clone();
  RT = other.RT.clone();
  RT_inv = other.RT_inv.clone();
  return *this;
}

PinHoleCamera::~PinHoleCamera() = default;

void PinHoleCamera::decompose() {
  cv::RQDecomp3x3(P(kTop3, kTop3), K, R);
  cv::Mat_<double> t = K.inv(cv::DECOMP_LU) * P(kTop3, cv::Range(3, 4));
  T = t;
}

void PinHoleCamera::compose() {
  write_into(R, P(kTop3, kTop3));
  write_into(T, P(kTop3, cv::Range(3, 4)));
  cv::Mat_<double> intrinsics = identity4();
  write_into(K, intrinsics(kTop3, kTop3));
  cv::Mat_<double> composed = intrinsics * P;
  composed.copyTo(P);
  cv::invert(P, P_inv, cv::DECOMP_LU);
}

void PinHoleCamera::setPPM(cv::Mat_<double>& ppm) {
  write_into(ppm(kTop3, cv::Range(0, 4)), P(kTop3, cv::Range(0, 4)));
  decompose();
  cv::invert(P, P_inv, cv::DECOMP_LU);
  write_into(R, RT(kTop3, kTop3));
  write_into(T, RT(kTop3, cv::Range(3, 4)));
  cv::invert(RT, RT_inv, cv::DECOMP_LU);
}

cv::Point_<double> PinHoleCamera::project_forw(const cv::Point3_<double>& X) const {
  cv::Mat_<double> M = P;
  cv::Point3_<double> x = X;
  return project3d_2d(M, x);
}

cv::Point3_<double> PinHoleCamera::project_back(const cv::Point_<double>& p) const {
  cv::Mat_<double> direction = (cv::Mat_<double>(4, 1) << p.x, p.y, 1.0, 0.0);
  cv::Mat_<double> y = P_inv * direction;
  return {y(0), y(1), y(2)};
}

cv::Point3_<double> PinHoleCamera::get_sight_vector(const cv::Point_<double>& p) const {
  cv::Point3_<double> v = project_back(p);
  double n = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
  if (n == 0.0) return {0.0, 0.0, 0.0};
  return v * (1.0 / n);
}

cv::Mat PinHoleCamera::get_center() const { return RT_inv(kTop3, cv::Range(3, 4)); }

bool PinHoleCamera::save(cv::FileStorage* fs) {
  cv::FileStorage own;
  if (!fs) own.open(own_file_name(name), cv::FileStorage::WRITE);
  cv::FileStorage& out = fs ? *fs : own;
  if (!out.isOpened()) return false;
  if (!fs) out << "CameraName" << name;
  out << name + "_size" << "[:" << size.width << size.height << "]";
  cv::write(out, name + "_K", K);
  cv::write(out, name + "_R", R);
  cv::write(out, name + "_T", T);
  cv::write(out, name + "_P", P(kTop3, cv::Range(0, 4)));
  if (!fs) own.release();
  return true;
}

bool PinHoleCamera::load(cv::FileStorage* fs) {
  cv::FileStorage own;
  if (!fs) sl3d::open_yaml_storage(own_file_name(name), own);
  cv::FileStorage& in = fs ? *fs : own;
  if (!in.isOpened()) return false;
  // The own file was named after the old name; its keys follow the new one.
  if (!fs) name = static_cast<std::string>(in["CameraName"]);

  std::vector<int> wh;
  in[name + "_size"] >> wh;
  size = wh.size() == 2 ? cv::Size(wh[0], wh[1]) : cv::Size(0, 0);

  K = read_matrix(in[name + "_K"]);
  R = read_matrix(in[name + "_R"]);
  T = read_matrix(in[name + "_T"]);
  // The stored K, R, T are informative only: setPPM re-derives them.
  cv::Mat_<double> ppm = read_matrix(in[name + "_P"]);
  setPPM(ppm);
  if (!fs) own.release();
  return true;
}

bool PinHoleCamera::solvePnPRansac(cv::Mat& rvec, cv::Mat& tvec,
                                   std::vector<cv::Point_<float>>& image_points,
                                   std::vector<cv::Point3_<float>>& object_points) {
  return cv::solvePnPRansac(object_points, image_points, K, cv::Mat(), rvec, tvec, false, 100,
                            8.0f, 0.99, cv::noArray(), 0);
}

bool PinHoleCamera::solvePnP(cv::Mat& rvec, cv::Mat& tvec,
                             std::vector<cv::Point_<float>>& image_points,
                             std::vector<cv::Point3_<float>>& object_points) {
  return cv::solvePnP(object_points, image_points, K, cv::Mat(), rvec, tvec, false, 0);
}

bool PinHoleCamera::save_hmat(std::ofstream& os) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) {
      double v = P(r, c);
      os.write(reinterpret_cast<const char*>(&v), sizeof v);
    }
  return !os.fail();
}

bool PinHoleCamera::load_hmat(std::ifstream& is) {
  cv::Mat_<double> ppm(3, 4);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c) is.read(reinterpret_cast<char*>(&ppm(r, c)), sizeof(double));
  if (is.fail()) return false;
  setPPM(ppm);
  return true;
}

namespace sl3d {

void refresh_pose(PinHoleCamera& cam) {
  cam.compose();
  cv::Mat_<double> ppm = cam.P(kTop3, cv::Range(0, 4)).clone();
  cam.setPPM(ppm);
}

}  // namespace sl3d

cv::Point_<double> project3d_2d(cv::Mat_<double>& M, cv::Point3_<double>& X) {
  cv::Mat_<double> x = (cv::Mat_<double>(4, 1) << X.x, X.y, X.z, 1.0);
  cv::Mat_<double> y = M * x;
  double s = 1.0 / y(2);
  return {s * y(0), s * y(1)};
}
