#include <sl3d/psft/psft.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include <sl3d/psft/phase_matcher.h>

namespace {

constexpr int kGrayBits = 7;
constexpr int kFirstGrayIndex = 2;
constexpr int kFirstFringeIndex = 9;
constexpr int kMinUsablePeriod = 25;
constexpr int kMaxUsablePeriod = 96;
constexpr int kBlock = 8;
constexpr double kMaxCodeDeviation = 5.0;
constexpr double kTwoPi = 6.283185307179586;
// Fringe consistency at a corrected stripe edge, in raw 8-bit units.
constexpr double kEdgeFlat = 20.0;
constexpr double kEdgeSteep = 30.0;

constexpr std::uint8_t gray_to_binary(unsigned i) {
  unsigned b = 0;
  for (unsigned s = 0; s < 8; ++s) b ^= i >> s;
  return static_cast<std::uint8_t>(b & 0xFF);
}

// The fringe images hold 8-bit values, so both arguments of the phase's
// atan2 are integers in [-255, 255]: one table of the exact results replaces
// millions of atan2 calls.
class Atan2Table {
 public:
  static const Atan2Table& instance() {
    static const Atan2Table table;
    return table;
  }
  double operator()(int dy, int dx) const { return v_[(dy + 255) * 511 + (dx + 255)]; }

 private:
  Atan2Table() : v_(511 * 511) {
    for (int dy = -255; dy <= 255; ++dy)
      for (int dx = -255; dx <= 255; ++dx)
        v_[(dy + 255) * 511 + (dx + 255)] = std::atan2(double(dy), double(dx));
  }
  std::vector<double> v_;
};

// The search window of column x is [x + min disparity, x + max disparity),
// truncated toward zero and clipped to the row. The bounds are clipped in
// double before the conversion, so parameters far outside the int range
// give an empty or a whole-row window instead of an overflowing cast; for
// bounds inside the row the result is the plain truncation.
int search_begin(int x, double min_disparity, int width) {
  const double lo = x + min_disparity;
  if (!(lo > 0)) return 0;
  return lo < width ? static_cast<int>(lo) : width;
}

int search_end(int x, double max_disparity, int width) {
  const double hi = x + max_disparity;
  if (!(width > hi)) return width;
  return hi > 0 ? static_cast<int>(hi) : 0;
}

bool fringe_pair_inconsistent(double a_flat, double b_flat, double a_steep,
                              double b_steep) {
  return std::fabs(a_flat - b_flat) < kEdgeFlat && std::fabs(a_steep - b_steep) > kEdgeSteep;
}

}  // namespace

const std::uint8_t gray2binary[256] = {
#define SL3D_G(i) gray_to_binary(i)
#define SL3D_G4(i) SL3D_G(i), SL3D_G(i + 1), SL3D_G(i + 2), SL3D_G(i + 3)
#define SL3D_G16(i) SL3D_G4(i), SL3D_G4(i + 4), SL3D_G4(i + 8), SL3D_G4(i + 12)
#define SL3D_G64(i) SL3D_G16(i), SL3D_G16(i + 16), SL3D_G16(i + 32), SL3D_G16(i + 48)
    SL3D_G64(0), SL3D_G64(64), SL3D_G64(128), SL3D_G64(192)
#undef SL3D_G64
#undef SL3D_G16
#undef SL3D_G4
#undef SL3D_G
};

// ---------------------------------------------------------------------------
// Sub-pixel fit

bool set_disparity_least_mean_3(double& out, double* p, unsigned char* s, int i, double x,
                                double target) {
  if (s[i - 1] >= 200 || s[i + 1] >= 200) {
    out = x - i;
    return true;
  }
  const double m = (p[i - 1] + p[i] + p[i + 1]) / 3;
  const double k = (p[i + 1] - m) - (p[i - 1] - m);
  if (k == 0.0) return false;
  const double h = k * 0.5;
  const double sub = (target - (m - i * h)) / h;
  out = x - sub;
  return true;
}

bool set_disparity_least_mean_5(double& out, double* p, unsigned char* s, int i, double x,
                                double target) {
  if (s[i - 2] >= 200 || s[i - 1] >= 200 || s[i + 1] >= 200 || s[i + 2] >= 200) {
    out = x - i;
    return true;
  }
  const double m = (p[i - 2] + p[i - 1] + p[i] + p[i + 1] + p[i + 2]) / 5;
  const double k = -2.0 * (p[i - 2] - m) - (p[i - 1] - m) + (p[i + 1] - m) + 2 * (p[i + 2] - m);
  if (k == 0.0) return false;
  const double h = k * 0.5;
  const double sub = (target - (m - i * h)) / h;
  out = x - sub;
  return true;
}

// ---------------------------------------------------------------------------
// Lifecycle and intake

void PhaseShift::destroy() { delete this; }

bool PhaseShift::init(int width, int height) {
  if (!PointCloudGenerator::init(width, height)) return false;
  // Out of memory is reported like the base buffers' failure: false, and
  // the object stays usable for another init.
  try {
    resize_planes(width, height);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

namespace {

// A plane whose element count is already right keeps its memory and its
// contents; a plane allocated anew starts at zero, so that nothing read
// before it is written (the disparity map's neighbours, frames never handed
// in) depends on what the memory held before.
template <typename Plane>
void resize_plane(Plane& plane, int width, int height) {
  if (plane.size() == static_cast<Eigen::Index>(width) * height) {
    plane.resize(height, width);
  } else {
    plane.setZero(height, width);
  }
}

}  // namespace

void PhaseShift::resize_planes(int width, int height) {
  for (CameraPlanes& cam : cams_) {
    resize_plane(cam.status, width, height);
    resize_plane(cam.black, width, height);
    resize_plane(cam.white, width, height);
    for (ByteImage& g : cam.gray) resize_plane(g, width, height);
    for (DoubleImage& f : cam.fringe) resize_plane(f, width, height);
    resize_plane(cam.code, width, height);
    resize_plane(cam.phase, width, height);
  }
  resize_plane(texture_, width, height);
  resize_plane(disparity_map_, width, height);
  resize_plane(threshold_, width, height);
}

void PhaseShift::setparams(void* p) {
  std::memcpy(&params_, p, sizeof(PhaseShiftParams));
  if (params_.fit_width != 3 && params_.fit_width != 5) params_.fit_width = 3;
}

void PhaseShift::copy_rows(ByteImage& plane, const unsigned char* img,
                           unsigned long step) const {
  const long cols = plane.cols();
  for (long r = 0; r < plane.rows(); ++r, img += step) {
    std::memcpy(plane.row(r).data(), img, static_cast<std::size_t>(cols));
  }
}

void PhaseShift::subtract_bg(ByteImage& gray, const ByteImage& black) const {
  std::uint8_t* g = gray.data();
  const std::uint8_t* b = black.data();
  const long n = gray.size();
  for (long i = 0; i < n; ++i) g[i] = g[i] > b[i] ? static_cast<std::uint8_t>(g[i] - b[i]) : 0;
}

void PhaseShift::setpict(unsigned char* img, unsigned long step, int camera, int index) {
  // Out-of-range camera numbers are ignored rather than written past the
  // two camera plane sets.
  if (camera != 0 && camera != 1) return;
  CameraPlanes& cam = cams_[camera];
  if (index == 0) {
    copy_rows(cam.black, img, step);
  } else if (index == 1) {
    copy_rows(cam.white, img, step);
    if (camera == 0) texture_ = cam.white;
  } else if (index >= kFirstGrayIndex && index < kFirstGrayIndex + kGrayBits) {
    ByteImage& gray = cam.gray[index - kFirstGrayIndex];
    copy_rows(gray, img, step);
    subtract_bg(gray, cam.black);
  } else if (index >= kFirstFringeIndex && index < kFirstFringeIndex + 4) {
    DoubleImage& fringe = cam.fringe[index - kFirstFringeIndex];
    const long cols = fringe.cols();
    for (long r = 0; r < fringe.rows(); ++r, img += step) {
      double* out = fringe.row(r).data();
      for (long c = 0; c < cols; ++c) out[c] = img[c];
    }
  }
}

int PhaseShift::exec() {
  mk_code7(0);
  check_code7(0);
  mk_code7(1);
  check_code7(1);
  mk_phase(0);
  unwrap(0);
  mk_phase(1);
  unwrap(1);
  return make_disparity_data();
}

int PhaseShift::genPC(int mode) { return generate_pointcloud(mode, texture_); }

// ---------------------------------------------------------------------------
// Gray code

void PhaseShift::mk_code7(int camera) {
  CameraPlanes& cam = cams_[camera];
  const long n = threshold_.size();
  std::uint8_t* thr = threshold_.data();
  const std::uint8_t* w = cam.white.data();
  const std::uint8_t* b = cam.black.data();
  // 8-bit arithmetic: the difference wraps where black exceeds white.
  for (long i = 0; i < n; ++i) thr[i] = static_cast<std::uint8_t>(w[i] - b[i]) / 2;
  std::uint8_t* code = cam.code.data();
  cam.code.setZero();
  for (int k = 0; k < kGrayBits; ++k) {
    const std::uint8_t bit = static_cast<std::uint8_t>(64 >> k);
    const std::uint8_t* g = cam.gray[k].data();
    for (long i = 0; i < n; ++i) code[i] |= g[i] > thr[i] ? bit : 0;
  }
  for (long i = 0; i < n; ++i) code[i] = gray2binary[code[i]];
}

void PhaseShift::check_code7(int camera) {
  CameraPlanes& cam = cams_[camera];
  const long n = cam.status.size();
  std::uint8_t* status = cam.status.data();
  std::uint8_t* code = cam.code.data();
  const std::uint8_t* w = cam.white.data();
  const std::uint8_t* b = cam.black.data();
  for (long i = 0; i < n; ++i) {
    const int white = w[i];
    const int contrast = std::abs(white - int(b[i]));
    std::uint8_t s = kPsGood;
    if (contrast < params_.min_contrast || white > params_.max_white_level ||
        white < params_.min_white_level) {
      s = kPsLowContrastOrInconsistentCode;
    }
    if (code[i] < kMinUsablePeriod || code[i] > kMaxUsablePeriod) s = kPsPeriodOutOfRange;
    status[i] = s;
  }
  // Period index consistency per 8x8 block. Partial blocks at the right and
  // bottom edges are clipped to the image.
  const int width = this->width();
  const int height = this->height();
  for (int by = 0; by < height; by += kBlock) {
    const int y_end = std::min(by + kBlock, height);
    for (int bx = 0; bx < width; bx += kBlock) {
      const int x_end = std::min(bx + kBlock, width);
      double sum = 0.0;
      int count = 0;
      for (int y = by; y < y_end; ++y) {
        for (int x = bx; x < x_end; ++x) {
          const long i = long(y) * width + x;
          if (status[i] == kPsGood && code[i] != 0) {
            sum += code[i];
            ++count;
          } else {
            code[i] = 0;
          }
        }
      }
      const double mean = sum / count;  // NaN for an empty block: marks nothing
      for (int y = by; y < y_end; ++y) {
        for (int x = bx; x < x_end; ++x) {
          const long i = long(y) * width + x;
          if (std::fabs(code[i] - mean) > kMaxCodeDeviation) {
            status[i] = kPsLowContrastOrInconsistentCode;
          }
        }
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Phase

void PhaseShift::mk_phase(int camera) {
  CameraPlanes& cam = cams_[camera];
  const Atan2Table& atan2_table = Atan2Table::instance();
  const long n = cam.phase.size();
  const double* i0 = cam.fringe[0].data();
  const double* i1 = cam.fringe[1].data();
  const double* i2 = cam.fringe[2].data();
  const double* i3 = cam.fringe[3].data();
  double* phase = cam.phase.data();
  std::uint8_t* status = cam.status.data();
  for (long i = 0; i < n; ++i) {
    // The fringes came in as bytes, so the differences are exact integers.
    const double v = atan2_table(int(i3[i] - i1[i]), int(i2[i] - i0[i]));
    if (std::isfinite(v)) {
      phase[i] = v;
    } else {
      phase[i] = 0.0;
      status[i] = kPsBadPhase;
    }
  }
}

void PhaseShift::unwrap(int camera) {
  CameraPlanes& cam = cams_[camera];
  const double t = params_.unwrap_phase_margin;
  const int width = this->width();
  for (int y = 0; y < height(); ++y) {
    std::uint8_t* c = cam.code.row(y).data();
    double* p = cam.phase.row(y).data();
    std::uint8_t* s = cam.status.row(y).data();
    const double* I0 = cam.fringe[0].row(y).data();
    const double* I1 = cam.fringe[1].row(y).data();
    const double* I2 = cam.fringe[2].row(y).data();
    const double* I3 = cam.fringe[3].row(y).data();

    // Forward: the code rose at x but the phase has not wrapped yet.
    for (int x = 2; x < width - 2; ++x) {
      if (s[x] != kPsGood || int(c[x]) != int(c[x - 1]) + 1 || !(p[x] > t)) continue;
      c[x] = c[x - 1];
      if (fringe_pair_inconsistent(I2[x], I3[x], I1[x], I2[x])) s[x] = kPsBadPhase;
      if (p[x + 1] < -t) {
        ++x;  // the phase wraps at x+1, where the code already is right
      } else {
        c[x + 1] = c[x - 1];
        // Marks x, not x+1: the edge pixel carries the verdict.
        if (fringe_pair_inconsistent(I2[x + 1], I3[x + 1], I1[x + 1], I2[x + 1])) {
          s[x] = kPsBadPhase;
        }
      }
    }

    // Backward: the phase wrapped before the code rose. Uses the other
    // fringe pair for its consistency test and ignores the status.
    for (int x = width - 2; x > 2;) {
      if (int(c[x]) != int(c[x + 1]) - 1 || !(p[x] < -t) || p[x] > t) {
        --x;
        continue;
      }
      c[x] = c[x + 1];
      if (fringe_pair_inconsistent(I1[x], I3[x], I0[x], I2[x])) s[x] = kPsBadPhase;
      if (p[x - 1] > t) {
        x -= 2;
      } else {
        c[x - 1] = c[x + 1];
        if (fringe_pair_inconsistent(I1[x - 1], I3[x - 1], I0[x - 1], I2[x - 1])) {
          s[x] = kPsBadPhase;
        }
        x -= 1;
      }
    }
  }
  const long n = cam.phase.size();
  double* p = cam.phase.data();
  const std::uint8_t* c = cam.code.data();
  for (long i = 0; i < n; ++i) p[i] = p[i] + c[i] * kTwoPi;
}

// ---------------------------------------------------------------------------
// Disparity

int PhaseShift::make_disparity_data() {
  clear_disparities();
  sl3d::detail::PhaseRowMatcher matcher;
  for (int y = 0; y < height(); ++y) {
    matcher.reset(cams_[1].phase.row(y).data(), cams_[1].status.row(y).data(), width(),
                  params_.max_uses_per_right_pixel);
    match_row(y, matcher);
  }
  return height();
}

void PhaseShift::match_row(int y, sl3d::detail::PhaseRowMatcher& matcher) {
  const int width = this->width();
  const PhaseShiftParams& prm = params_;
  double* P0 = cams_[0].phase.row(y).data();
  double* P1 = cams_[1].phase.row(y).data();
  std::uint8_t* S0 = cams_[0].status.row(y).data();
  std::uint8_t* S1 = cams_[1].status.row(y).data();
  const std::uint8_t* W0 = cams_[0].white.row(y).data();
  const std::uint8_t* W1 = cams_[1].white.row(y).data();
  double* D = disparity_map_.row(y).data();
  const double* D_above = y > 0 ? disparity_map_.row(y - 1).data() : D;
  const bool first_pixel_of_image = y == 0;

  int hint = -1;
  for (int x = 0; x < width; ++x) {
    const int lo = search_begin(x, prm.min_disparity, width);
    const int hi = search_end(x, prm.max_disparity, width);
    if (lo >= hi) {
      S0[x] = kPsNoMatch;
      continue;
    }
    const int best = matcher.find(P0[x], lo, hi, hint);
    if (best < 0 || std::fabs(P1[best] - P0[x]) > prm.max_phase_difference) {
      S0[x] = kPsNoMatch;
      continue;
    }
    hint = best + 1;
    if (S1[best] >= kPsLowContrastOrInconsistentCode) {
      S0[x] = kPsMatchRejected;
      continue;
    }
    if (std::fabs(double(W0[x]) - double(W1[best])) > double(W0[x]) * prm.max_brightness_ratio) {
      S0[x] = kPsBrightnessMismatch;
      continue;
    }
    const bool fitted = fit_disparity(D[x], P1, S1, best, x, P0[x]);
    ++S1[best];
    matcher.refresh(best);
    if (!fitted) {
      S0[x] = kPsFitFailed;
      continue;
    }
    if (D[x] < prm.min_disparity || D[x] > prm.max_disparity) {
      S0[x] = kPsDisparityOutOfRange;
      continue;
    }
    // The map is never cleared: neighbours hold whatever a fit last wrote,
    // also when that pixel was rejected afterwards. For x = 0 the left
    // neighbour is the previous row's last pixel; the image's very first
    // pixel has no left neighbour and passes.
    const bool has_left = !(first_pixel_of_image && x == 0);
    const double step = prm.max_neighbor_disparity_step;
    if ((has_left && std::fabs(D[x - 1] - D[x]) > step) || std::fabs(D_above[x] - D[x]) > step) {
      S0[x] = kPsDisparityStep;
      continue;
    }
    append_disparity(x, y, D[x]);
  }
}

// The fit needs two (or four) neighbours of the match inside the row; at the
// row ends a missing neighbour counts as rejected, giving the integer match.
bool PhaseShift::fit_disparity(double& out, double* phase_row, std::uint8_t* status_row,
                               int best, int x, double target) const {
  const int half = params_.fit_width == 5 ? 2 : 1;
  if (best - half < 0 || best + half >= width()) {
    out = x - best;
    return true;
  }
  if (half == 2) return set_disparity_least_mean_5(out, phase_row, status_row, best, x, target);
  return set_disparity_least_mean_3(out, phase_row, status_row, best, x, target);
}
