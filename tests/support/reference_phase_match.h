#ifndef SL3D_TESTS_SUPPORT_REFERENCE_PHASE_MATCH_H_
#define SL3D_TESTS_SUPPORT_REFERENCE_PHASE_MATCH_H_

// The straightforward phase matcher: for every camera-0 pixel, a scan over
// every candidate column of camera 1's row. Tests prove the library's
// matcher equal to it; the benchmark measures how much faster the library is.

#include <algorithm>
#include <cmath>
#include <vector>

#include <sl3d/psft/psft.h>

namespace sl3d {
namespace testing {

using ByteImage = PhaseShift::ByteImage;
using DoubleImage = PhaseShift::DoubleImage;

struct MatchState {
  DoubleImage p0, p1;
  ByteImage s0, s1, w0, w1;
  DoubleImage d;
  std::vector<double> records;
};

inline bool reference_fit(const PhaseShiftParams& prm, double& out, DoubleImage& p1, ByteImage& s1,
                   int y, int best, int x, double target) {
  const int half = prm.fit_width == 5 ? 2 : 1;
  if (best - half < 0 || best + half >= p1.cols()) {
    out = x - best;
    return true;
  }
  double* p = p1.row(y).data();
  unsigned char* s = s1.row(y).data();
  return half == 2 ? set_disparity_least_mean_5(out, p, s, best, x, target)
                   : set_disparity_least_mean_3(out, p, s, best, x, target);
}

// The plain scan, written from the matching rules without any shortcut.
inline void reference_match(const PhaseShiftParams& prm, MatchState& st) {
  const int width = static_cast<int>(st.p0.cols());
  for (int y = 0; y < st.p0.rows(); ++y) {
    for (int x = 0; x < width; ++x) {
      // The window [x + min, x + max), truncated, clipped to [0, width].
      const double lo_exact = std::min<double>(x + prm.min_disparity, width);
      const double hi_exact = std::max<double>(x + prm.max_disparity, 0.0);
      const int lo = lo_exact > 0 ? static_cast<int>(lo_exact) : 0;
      const int hi = width > hi_exact ? static_cast<int>(hi_exact) : width;
      unsigned char& s0 = st.s0(y, x);
      if (lo >= hi) {
        s0 = 205;
        continue;
      }
      double best = 1000.0;
      int col = -1;
      for (int x1 = lo; x1 < hi; ++x1) {
        const double diff = std::fabs(st.p1(y, x1) - st.p0(y, x));
        if (st.s1(y, x1) < prm.max_uses_per_right_pixel && diff < best) {
          best = diff;
          col = x1;
        }
      }
      if (col < 0 || best > prm.max_phase_difference) {
        s0 = 205;
        continue;
      }
      if (st.s1(y, col) >= 201) {
        s0 = 204;
        continue;
      }
      const double w0 = st.w0(y, x);
      if (std::fabs(w0 - double(st.w1(y, col))) > w0 * prm.max_brightness_ratio) {
        s0 = 206;
        continue;
      }
      double& dx = st.d(y, x);
      const bool ok = reference_fit(prm, dx, st.p1, st.s1, y, col, x, st.p0(y, x));
      ++st.s1(y, col);
      if (!ok) {
        s0 = 210;
        continue;
      }
      if (dx < prm.min_disparity || dx > prm.max_disparity) {
        s0 = 208;
        continue;
      }
      const double* flat = st.d.data() + static_cast<long>(y) * width + x;
      const bool left_fails = (y > 0 || x > 0) && std::fabs(flat[-1] - dx) > prm.max_neighbor_disparity_step;
      const bool up_fails = y > 0 && std::fabs(st.d(y - 1, x) - dx) > prm.max_neighbor_disparity_step;
      if (left_fails || up_fails) {
        s0 = 209;
        continue;
      }
      st.records.insert(st.records.end(), {double(x), double(y), dx, 1.0});
    }
  }
}

// Decodes both cameras of a generator whose 26 frames were handed in (every
// stage of exec() but the matching) and returns the matcher's inputs, with a
// zeroed disparity map.
inline MatchState decode_for_matching(PhaseShift& gen) {
  for (int camera = 0; camera < 2; ++camera) {
    gen.mk_code7(camera);
    gen.check_code7(camera);
    gen.mk_phase(camera);
    gen.unwrap(camera);
  }
  MatchState st;
  st.p0 = gen.phase_map(0);
  st.p1 = gen.phase_map(1);
  st.s0 = gen.status_map(0);
  st.s1 = gen.status_map(1);
  st.w0 = gen.white_image(0);
  st.w1 = gen.white_image(1);
  st.d = DoubleImage::Zero(gen.height(), gen.width());
  return st;
}

// Puts the matcher's inputs into a generator initialised for their size.
inline void load_for_matching(PhaseShift& gen, const MatchState& st) {
  gen.mutable_phase_map(0) = st.p0;
  gen.mutable_phase_map(1) = st.p1;
  gen.mutable_status_map(0) = st.s0;
  gen.mutable_status_map(1) = st.s1;
  gen.mutable_white_image(0) = st.w0;
  gen.mutable_white_image(1) = st.w1;
  gen.mutable_disparity_map() = st.d;
}

}  // namespace testing
}  // namespace sl3d

#endif  // SL3D_TESTS_SUPPORT_REFERENCE_PHASE_MATCH_H_
