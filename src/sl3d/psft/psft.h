#ifndef SL3D_PSFT_PSFT_H_
#define SL3D_PSFT_PSFT_H_

// Phase-shift structured light with a 7-bit Gray code.
//
// Use PhaseShift (createPointCloudGenerator(0)) when a projector throws, per
// capture, 13 frames that two rectified cameras see:
//
//   index 0      black (projector dark)
//   index 1      white (projector fully lit); camera 0's becomes the colour
//   index 2..8   Gray-code stripes, bit 6 (most significant) first
//   index 9..12  four sinusoidal fringes, each shifted by a quarter period
//
// exec() decodes per camera a period index (Gray code) and a wrapped phase
// (fringes), unwraps the phase with the period index, then searches, for
// every pixel of camera 0, the same row of camera 1 for the pixel of nearest
// absolute phase and refines the match to sub-pixel. The wrapped phase is
// atan2(I3 - I1, I2 - I0); it must rise with the column within a period and
// wrap from +pi to -pi where the period index rises. Only period indices
// 25..96 are used.
//
// Image size: width and height should be multiples of 8 (the period index is
// checked in 8x8 blocks). For other sizes the last, partial blocks are
// clipped to the image: only the pixels that exist take part.
//
// Every rejected pixel keeps a status code of 200 or more in its camera's
// status map (see PhaseShiftStatus); nothing is reported otherwise.

#include <cstdint>
#include <vector>

#include <Eigen/Core>

#include <sl3d/export.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>

namespace sl3d {
namespace detail {
class PhaseRowMatcher;
}  // namespace detail
}  // namespace sl3d

// The parameter block that setparams() copies; 72 bytes, native layout.
struct SL3D_EXPORT PhaseShiftParams {
  // A pixel whose |white - black| is below this is rejected.
  int min_contrast = 12;
  // A pixel whose white value is above this is rejected (256 never triggers).
  int max_white_level = 256;
  // A pixel whose white value is below this is rejected.
  int min_white_level = 15;
  int reserved = 0;
  // Radians: at a Gray-code edge, decides whether the wrapped phase has
  // already turned over.
  double unwrap_phase_margin = 1.2;
  // Pixels: a disparity may differ at most this much from its left and
  // upper neighbours.
  double max_neighbor_disparity_step = 1.0;
  // Radians: the best match must be at least this close in phase.
  double max_phase_difference = 1.5707963267948966;
  // The white values of matched pixels may differ by at most this fraction
  // of camera 0's white value.
  double max_brightness_ratio = 0.7;
  double max_disparity = 400.0;
  double min_disparity = -300.0;
  // How often one camera-1 pixel may be taken as a match.
  int max_uses_per_right_pixel = 2;
  // 3 or 5 samples for the sub-pixel fit; setparams() turns any other
  // value into 3.
  int fit_width = 3;
};
static_assert(sizeof(PhaseShiftParams) == 72, "PhaseShiftParams is 72 bytes");

// Per-pixel status codes. Values below 200 are good; in camera 1's map they
// count how often the pixel was taken as a match.
enum PhaseShiftStatus : std::uint8_t {
  kPsGood = 0,
  kPsLowContrastOrInconsistentCode = 201,
  kPsPeriodOutOfRange = 202,
  kPsBadPhase = 203,
  kPsMatchRejected = 204,
  kPsNoMatch = 205,
  kPsBrightnessMismatch = 206,
  kPsDisparityOutOfRange = 208,
  kPsDisparityStep = 209,
  kPsFitFailed = 210,
};

// Maps a reflected-binary Gray code to its binary value:
// entry i = i ^ (i >> 1) ^ (i >> 2) ^ ... ^ (i >> 7).
extern const std::uint8_t gray2binary[256];

// Sub-pixel refinement of an integer match i in camera 1's row: fits a line
// through the phases p[i-1..i+1] and returns, in `out`, x minus the column at
// which the line reaches `target`:
//   m = mean(p[i-1], p[i], p[i+1]); h = ((p[i+1]-m) - (p[i-1]-m)) * 0.5
//   out = x - (target - (m - i*h)) / h
// When a neighbour's status is 200 or more, out = x - i (integer match).
// Returns false, leaving `out` alone, when the slope is exactly zero.
// The caller guarantees 1 <= i <= width-2.
SL3D_EXPORT bool set_disparity_least_mean_3(double& out, double* phase_row,
                                            unsigned char* status_row, int i,
                                            double x, double target);

// The 5-sample form over p[i-2..i+2]:
//   k = -2(p[i-2]-m) - (p[i-1]-m) + (p[i+1]-m) + 2(p[i+2]-m), h = k * 0.5
// The factor 0.5 is kept although the least-squares slope would be k / 10:
// the sub-pixel correction is therefore a fifth of the line's. Falls back to
// the integer match when any of the four neighbours is rejected.
SL3D_EXPORT bool set_disparity_least_mean_5(double& out, double* phase_row,
                                            unsigned char* status_row, int i,
                                            double x, double target);

// The phase-shift generator. Owns one set of image planes per camera.
//
// Memory: every plane lives from init to destroy (about 56 bytes per pixel:
// per camera 15 one-byte planes, the fringes among them, and the 8-byte
// phase; the 8-byte disparity map; a threshold and a scratch byte), plus the
// base's 52 bytes of output buffers. exec and genPC allocate nothing large.
// Planes allocated anew start at zero.
class SL3D_EXPORT PhaseShift : public PointCloudGenerator {
 public:
  using ByteImage = PointCloudGenerator::ByteImage;
  using DoubleImage =
      Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
  // Views of the generator's planes, valid until the next init or destroy.
  using ByteView = Eigen::Map<const ByteImage>;
  using DoubleView = Eigen::Map<const DoubleImage>;
  using MutableByteView = Eigen::Map<ByteImage>;
  using MutableDoubleView = Eigen::Map<DoubleImage>;

  PhaseShift();

  void destroy() override;
  // Base init, then sizes every plane to height x width (a plane of the right
  // element count is kept with its contents; one allocated anew is zero).
  // Returns false when memory runs out.
  bool init(int width, int height) override;
  // Copies a PhaseShiftParams; a fit width other than 3 or 5 becomes 3.
  void setparams(void* params) override;
  // Files frame `index` (0..12, others ignored) of `camera` (0 or 1; other
  // camera numbers are ignored rather than written out of bounds). Black (0)
  // must come before the Gray-code frames (2..8), which are stored minus
  // black with a floor at zero. The fringe frames (9..12) are kept as the
  // bytes they are; the phase reads them as the exact doubles they stand for.
  void setpict(unsigned char* img, unsigned long step, int camera,
               int index) override;
  // Decodes both cameras and matches them; returns the number of rows done.
  // With sl3d::set_num_threads(n > 1) both steps split the rows over n
  // threads; the result is the same.
  int exec() override;
  // Points coloured by camera 0's white image.
  int genPC(int mode) override;

  const PhaseShiftParams& params() const { return params_; }

  // The stages of exec(), in order, exposed for inspection and tests
  // (exec runs them fused, band by band of 8 rows, with the same result).
  // Period index per pixel from the Gray-code frames.
  void mk_code7(int camera);
  // Status per pixel: contrast, white level, period range and 8x8 blocks.
  void check_code7(int camera);
  // Wrapped phase from the four fringes.
  void mk_phase(int camera);
  // Corrects the period index at stripe edges and makes the phase absolute.
  void unwrap(int camera);
  // Sub-pixel disparity list from the two phase maps; returns height.
  int make_disparity_data();

  ByteView status_map(int camera) const { return cams_[camera].status.map(); }
  ByteView code_map(int camera) const { return cams_[camera].code.map(); }
  DoubleView phase_map(int camera) const { return cams_[camera].phase.map(); }
  ByteView white_image(int camera) const { return cams_[camera].white.map(); }
  ByteView threshold_image() const { return threshold_.map(); }
  DoubleView disparity_map() const { return disparity_map_.map(); }

  // Writable views for callers that prepare planes themselves (tests of the
  // matcher feed hand-made phase rows).
  MutableByteView mutable_status_map(int camera) { return cams_[camera].status.map(); }
  MutableDoubleView mutable_phase_map(int camera) { return cams_[camera].phase.map(); }
  MutableByteView mutable_white_image(int camera) { return cams_[camera].white.map(); }
  MutableDoubleView mutable_disparity_map() { return disparity_map_.map(); }

 protected:
  ~PhaseShift() override;

 private:
  template <typename T>
  using Plane = sl3d::detail::Plane<T>;
  struct CameraPlanes {
    Plane<std::uint8_t> status;
    Plane<std::uint8_t> black;
    Plane<std::uint8_t> white;
    Plane<std::uint8_t> gray[7];
    Plane<std::uint8_t> fringe[4];
    Plane<std::uint8_t> code;
    Plane<double> phase;
  };
  struct MatchChunk;

  bool resize_planes(int width, int height);
  void place_planes(sl3d::detail::PlaneLayout& layout, int width, int height);
  void decode_rows(int camera, int y0, int y1, bool code, bool status, bool phase,
                   bool unwrap);
  void match_rows(int y0, int y1, sl3d::detail::PhaseRowMatcher& matcher, MatchChunk& chunk);
  int match_in_chunks(int chunks);

  PhaseShiftParams params_;
  // One block for all planes below.
  sl3d::detail::ZeroedBuffer plane_memory_;
  Plane<double> disparity_map_;
  Plane<std::uint8_t> threshold_;
  // Per pixel of camera 0, while the rows are matched in chunks: whether
  // the pixel's record is kept (see match_in_chunks).
  Plane<std::uint8_t> match_flags_;
  CameraPlanes cams_[2];
  // One per thread; storage sized at init, so matching allocates nothing.
  std::vector<sl3d::detail::PhaseRowMatcher> matchers_;
};

#endif  // SL3D_PSFT_PSFT_H_
