#ifndef SL3D_POINTCLOUD_POINTCLOUDGENERATOR_H_
#define SL3D_POINTCLOUD_POINTCLOUDGENERATOR_H_

// Point-cloud generators: the one interface behind which both measuring
// methods (phase-shift structured light and semi-global block matching) sit.
//
// Use a generator when you hold the 8-bit grey captures of one scene and want
// 3-D points. The calling order is fixed:
//
//   iPointCloudGenerator* gen = createPointCloudGenerator(0);  // 1 = SGBM
//   gen->init(width, height);          // allocates; drops calibration
//   gen->set_camera_params(q);         // 4x4 row-major Q (or a directory)
//   gen->setparams(&params);           // PhaseShiftParams / SGBMParams
//   gen->setpict(img, step, camera, index);   // every frame of the capture
//   gen->exec();                       // disparity list
//   int n = gen->genPC(0);             // points and range grid
//   ... get_pointcloud_ptr(), get_rangegrid() ...
//   gen->destroy();
//
// Ownership: the caller owns the generator from the factory until destroy().
// The generator owns every buffer; the accessors lend them, and they stay
// valid until the next init(), genPC() or destroy().
//
// Threads: a generator is used from one thread; distinct generators share
// nothing. By default the library starts no threads of its own;
// sl3d::set_num_threads (sl3d/pointcloud/threads.h) lets exec and genPC
// split their work over several, with the same results.

#include <cstdint>
#include <memory>
#include <string>

#include <Eigen/Core>

#include <sl3d/export.h>
#include <sl3d/pointcloud/buffers.h>
#include <sl3d/pointcloud/ply.h>

class StereoCamera;

namespace sl3d {
namespace detail {
class DisparityListAccess;
}  // namespace detail
}  // namespace sl3d

// One output point: 16 bytes, the stride of the point buffer. The generators
// write grey colours (red = green = blue); the last byte is never written.
struct SL3D_EXPORT PointCloudElement {
  float x;
  float y;
  float z;
  unsigned char red;
  unsigned char green;
  unsigned char blue;
  unsigned char unused;
};
static_assert(sizeof(PointCloudElement) == 16, "PointCloudElement is 16 bytes");

// The exported interface. The order of the virtual operations is part of the
// binary interface and must not change.
class SL3D_EXPORT iPointCloudGenerator {
 public:
  // Deletes the object. The only way to release a generator.
  virtual void destroy() = 0;
  // Allocates the point buffer, range grid and disparity list for
  // width x height images and releases any camera parameters held before.
  // Every buffer and plane that is allocated anew starts cleared (the range
  // grid at -1), so a fresh generator's results do not depend on what the
  // memory held before. Returns false when an allocation fails (the object
  // stays usable and may be initialised again). A negative width or height,
  // or a pixel count width*height beyond INT_MAX, has no representable byte
  // count: init raises std::bad_array_new_length before any other effect,
  // leaving the generator as it was.
  virtual bool init(int width, int height) = 0;
  // Loads the rectified stereo model from a calibration directory and takes
  // its Q matrix. Returns true when a stereo camera was built.
  virtual bool set_camera_params(const char* dir) = 0;
  // Copies a 4x4 row-major reprojection matrix Q. Returns false only when the
  // copy cannot be allocated.
  virtual bool set_camera_params(const double* q) = 0;
  // Copies the generator's own parameter block (PhaseShiftParams or
  // SGBMParams); the pointer is not kept.
  virtual void setparams(void* params) = 0;
  // Rectifies a raw capture in place with the loaded stereo model; does
  // nothing when no calibration directory was loaded.
  virtual void rectify(unsigned char* img, int width, int height,
                       unsigned long step, int camera) = 0;
  // Hands one captured image (width x height of init, rows `step` bytes
  // apart) to the generator; the image is copied.
  virtual void setpict(unsigned char* img, unsigned long step, int camera,
                       int index) = 0;
  // Computes the disparity list from the images handed in.
  virtual int exec() = 0;
  // Turns the disparity list into points and range grid; returns the count.
  // Mode 0 reprojects with Q; modes 1 and 2 use the stereo model when one
  // was loaded from a directory and otherwise fall back to Q.
  virtual int genPC(int mode) = 0;
  virtual int get_pointcloud_cnt() const = 0;
  virtual PointCloudElement* get_pointcloud_ptr() const = 0;
  // One int per pixel, row-major: -1 where no point, else the point index.
  virtual int* get_rangegrid() const = 0;

 protected:
  virtual ~iPointCloudGenerator() = default;
};

// Creates a generator: kind 1 gives block matching (SGBMaching), every other
// value phase shift (PhaseShift). Returns null when memory is exhausted.
extern "C" SL3D_EXPORT iPointCloudGenerator* createPointCloudGenerator(int kind);

// The common base of both generators: owns the output buffers and turns a
// disparity list into points. Derived generators fill the disparity list in
// exec() and call generate_pointcloud() from genPC().
class SL3D_EXPORT PointCloudGenerator : public iPointCloudGenerator {
 public:
  // 8-bit texture image, height x width, row-major: the colour source.
  using ByteImage =
      Eigen::Matrix<std::uint8_t, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

  PointCloudGenerator();
  PointCloudGenerator(const PointCloudGenerator&) = delete;
  PointCloudGenerator& operator=(const PointCloudGenerator&) = delete;

  bool init(int width, int height) override;
  bool set_camera_params(const char* dir) override;
  bool set_camera_params(const double* q) override;
  void rectify(unsigned char* img, int width, int height, unsigned long step,
               int camera) override;
  int get_pointcloud_cnt() const override { return point_count_; }
  PointCloudElement* get_pointcloud_ptr() const override {
    return static_cast<PointCloudElement*>(points_.data());
  }
  int* get_rangegrid() const override { return static_cast<int*>(range_grid_.data()); }

  // Read-only views for callers and tests that want the intermediate result.
  int get_disparity_cnt() const { return disparity_count_; }
  // Records of four doubles: column, row, disparity, 1.0.
  const double* get_disparity_ptr() const {
    return static_cast<const double*>(disparities_.data());
  }
  const double* get_q_matrix() const { return q_.get(); }
  // The stereo model loaded from a calibration directory, or null.
  const StereoCamera* get_stereo_camera() const { return stereo_camera_.get(); }
  int width() const { return width_; }
  int height() const { return height_; }

  // When non-zero, the dispatcher and directory loading print their
  // fallback messages to standard output. The factory sets it to 1.
  int verbose = 0;

 protected:
  ~PointCloudGenerator() override;

  // Chooses the triangulation route for `mode` and returns the point count.
  // Without a stereo model only the Q route exists; without Q it yields 0.
  // `texture` is the height x width row-major 8-bit colour source.
  int generate_pointcloud(int mode, const std::uint8_t* texture);

  // Q route: each record (x, y, d, 1) becomes Q * (x, y, d, 1)^T / W. Records
  // whose W is exactly 0 give no point. Resets the range grid to -1 first.
  int generate_pointcloud_Q(const std::uint8_t* texture);
  // Stereo-model routes (a calibration directory was loaded): mode 2 by
  // least squares over both projection matrices (as
  // StereoCamera::get3dposition_P), mode 1 by the closest approach of the two
  // sight rays (as get_sight_vector and StereoCamera::position_from_sv).
  // Both run the per-point arithmetic in one loop over the list, with the
  // cameras' matrices read once. Neither resets the range grid.
  int generate_pointcloud_P(const std::uint8_t* texture);
  int generate_pointcloud_V(const std::uint8_t* texture);

  // Appends one disparity record; the caller guarantees room (the list holds
  // width*height records).
  void append_disparity(double x, double y, double d) {
    write_disparity(disparity_count_, x, y, d);
    ++disparity_count_;
  }
  // Writes record `index` without counting it; set_disparity_count then
  // declares how many records the list holds. For generators that fill the
  // list from several threads.
  void write_disparity(int index, double x, double y, double d) {
    double* rec = static_cast<double*>(disparities_.data()) + 4 * static_cast<std::size_t>(index);
    rec[0] = x;
    rec[1] = y;
    rec[2] = d;
    rec[3] = 1.0;
  }
  void set_disparity_count(int count) { disparity_count_ = count; }
  void clear_disparities() { disparity_count_ = 0; }

  int pixel_count() const { return pixel_count_; }

  // width * height for init; raises std::bad_array_new_length when either is
  // negative or the product exceeds INT_MAX.
  static int checked_pixel_count(int width, int height);

 private:
  // The disparity filter (sl3d/pointcloud/disparity_filter.h) edits the
  // list between exec() and genPC().
  friend class sl3d::detail::DisparityListAccess;

  // Releases stereo camera, Q, disparity list, range grid and points.
  void dispose();
  bool take_q_from_stereo_camera();
  // Turns the disparity list into points with `solve`, which computes the
  // positions of a run of records (see pointcloud.cpp); in row chunks over
  // the library's threads when the list is in raster order.
  template <typename Solve>
  int emit_points(const std::uint8_t* texture, const Solve& solve);

  int point_count_ = 0;
  sl3d::detail::ZeroedBuffer points_;      // PointCloudElement per pixel
  sl3d::detail::ZeroedBuffer range_grid_;  // int per pixel
  int disparity_count_ = 0;
  sl3d::detail::ZeroedBuffer disparities_;  // four doubles per pixel
  std::unique_ptr<double[]> q_;
  // Rectified stereo model loaded from a calibration directory.
  std::unique_ptr<StereoCamera> stereo_camera_;
  int width_ = 0;
  int height_ = 0;
  int pixel_count_ = 0;
};

#endif  // SL3D_POINTCLOUD_POINTCLOUDGENERATOR_H_
