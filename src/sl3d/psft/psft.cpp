#include <sl3d/psft/psft.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <sl3d/pointcloud/threads.h>
#include <sl3d/psft/phase_matcher.h>
#include <sl3d/psft/phase_table.h>

namespace {

constexpr int kGrayBits = 7;
constexpr int kFirstGrayIndex = 2;
constexpr int kFirstFringeIndex = 9;
constexpr int kFringes = 4;
constexpr int kMinUsablePeriod = 25;
constexpr int kMaxUsablePeriod = 96;
constexpr int kBlock = 8;
constexpr double kMaxCodeDeviation = 5.0;
constexpr double kTwoPi = 6.283185307179586;
// Fringe consistency at a corrected stripe edge, in raw 8-bit units.
constexpr int kEdgeFlat = 20;
constexpr int kEdgeSteep = 30;
// Bands of 8-row blocks per thread below which decoding stays on one thread.
constexpr int kMinBandsPerChunk = 4;
constexpr int kMinRowsPerChunk = 32;

constexpr std::uint8_t gray_to_binary(unsigned i) {
  unsigned b = 0;
  for (unsigned s = 0; s < 8; ++s) b ^= i >> s;
  return static_cast<std::uint8_t>(b & 0xFF);
}

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

bool fringe_pair_inconsistent(int a_flat, int b_flat, int a_steep, int b_steep) {
  return std::abs(a_flat - b_flat) < kEdgeFlat && std::abs(a_steep - b_steep) > kEdgeSteep;
}

// The planes of one camera as row pointers.
struct Rows {
  const std::uint8_t* black;
  const std::uint8_t* white;
  const std::uint8_t* gray[kGrayBits];
  const std::uint8_t* fringe[kFringes];
  std::uint8_t* threshold;
  std::uint8_t* code;
  std::uint8_t* status;
  double* phase;
};

// Threshold and period index of one row. The threshold is (white - black)
// / 2 in 8-bit arithmetic: the difference wraps where black exceeds white,
// as designed. A Gray-code pixel counts as lit above the threshold, frame k
// giving bit 6 - k of the Gray code; the period index is gray2binary of it,
// the XOR of each bit with all bits above, formed by three shifts. The
// loops run over whole rows so that the compiler vectorises them.
void code_row(const Rows& r, int width) {
  const std::uint8_t* __restrict white = r.white;
  const std::uint8_t* __restrict black = r.black;
  std::uint8_t* __restrict thr = r.threshold;
  std::uint8_t* __restrict code = r.code;
  for (int x = 0; x < width; ++x) {
    thr[x] = static_cast<std::uint8_t>(static_cast<std::uint8_t>(white[x] - black[x]) >> 1);
    code[x] = 0;
  }
  for (int k = 0; k < kGrayBits; ++k) {
    const std::uint8_t* __restrict gray = r.gray[k];
    const std::uint8_t bit = static_cast<std::uint8_t>(64 >> k);
    for (int x = 0; x < width; ++x) code[x] |= gray[x] > thr[x] ? bit : 0;
  }
  for (int x = 0; x < width; ++x) {
    std::uint8_t c = code[x];
    c ^= c >> 1;
    c ^= c >> 2;
    c ^= c >> 4;
    code[x] = c;
  }
}

// Status of one row before the block test: 201 for too little contrast or
// a white level out of range, 202 (overriding it) for a period outside
// 25..96.
void status_row(const Rows& r, int width, const PhaseShiftParams& p) {
  const std::uint8_t* __restrict white = r.white;
  const std::uint8_t* __restrict black = r.black;
  const std::uint8_t* __restrict code = r.code;
  std::uint8_t* __restrict status = r.status;
  const int min_contrast = p.min_contrast;
  const int max_white = p.max_white_level;
  const int min_white = p.min_white_level;
  for (int x = 0; x < width; ++x) {
    const int w = white[x];
    const int contrast = std::abs(w - int(black[x]));
    const bool dim = contrast < min_contrast || w > max_white || w < min_white;
    const bool out_of_range = code[x] < kMinUsablePeriod || code[x] > kMaxUsablePeriod;
    status[x] = out_of_range ? kPsPeriodOutOfRange
                             : (dim ? kPsLowContrastOrInconsistentCode : kPsGood);
  }
}

// Period index consistency over the 8x8 blocks of rows [y0, y1) (y0 a
// multiple of 8): pixels not good or of code 0 get code 0, then every pixel
// more than 5 away from the mean code of the block's good pixels gets 201.
// Partial blocks at the right and bottom edges are clipped to the image.
void block_consistency(std::uint8_t* code, std::uint8_t* status, int width, int y0, int y1) {
  for (int by = y0; by < y1; by += kBlock) {
    const int y_end = std::min(by + kBlock, y1);
    for (int bx = 0; bx < width; bx += kBlock) {
      const int x_end = std::min(bx + kBlock, width);
      double sum = 0.0;
      int count = 0;
      for (int y = by; y < y_end; ++y) {
        for (int x = bx; x < x_end; ++x) {
          const std::size_t i = static_cast<std::size_t>(y) * width + x;
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
          const std::size_t i = static_cast<std::size_t>(y) * width + x;
          if (std::fabs(code[i] - mean) > kMaxCodeDeviation) {
            status[i] = kPsLowContrastOrInconsistentCode;
          }
        }
      }
    }
  }
}

// Wrapped phase of one row: atan2(I3 - I1, I2 - I0) of the fringe bytes.
// The arguments are integers in [-255, 255], and every value of the table is
// finite, so no pixel gets the status of a non-finite phase here.
void phase_row(const Rows& r, int width) {
  sl3d::detail::wrapped_phase_row(r.fringe[0], r.fringe[1], r.fringe[2], r.fringe[3], width,
                                  r.phase);
}

// Whether the period index rises by one from column x - 1 to x.
inline bool rises_at(const std::uint8_t* c, int x) { return int(c[x]) == int(c[x - 1]) + 1; }

// The first x in [from, end) where the period index rises, or end. Stripe
// edges are some pixels apart, so the scan compares 16 columns at a time.
int next_rise(const std::uint8_t* c, int from, int end) {
  int x = from;
#ifdef __SSE2__
  const __m128i one = _mm_set1_epi8(1);
  const __m128i top = _mm_set1_epi8(static_cast<char>(0xFF));
  for (; x + 16 <= end; x += 16) {
    const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + x));
    const __m128i left = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + x - 1));
    // here == left + 1 in 8 bits, except where left + 1 wrapped from 255.
    const __m128i rise = _mm_andnot_si128(_mm_cmpeq_epi8(left, top),
                                          _mm_cmpeq_epi8(here, _mm_add_epi8(left, one)));
    const int mask = _mm_movemask_epi8(rise);
    if (mask != 0) return x + __builtin_ctz(static_cast<unsigned>(mask));
  }
#endif
  for (; x < end; ++x) {
    if (rises_at(c, x)) return x;
  }
  return end;
}

// The last x in [stop, from] where the index rises from x to x + 1, or
// stop - 1.
int previous_rise(const std::uint8_t* c, int from, int stop) {
  int x = from;
#ifdef __SSE2__
  const __m128i one = _mm_set1_epi8(1);
  const __m128i top = _mm_set1_epi8(static_cast<char>(0xFF));
  for (; x - 15 >= stop; x -= 16) {
    const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + x - 15));
    const __m128i right = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + x - 14));
    const __m128i rise = _mm_andnot_si128(_mm_cmpeq_epi8(here, top),
                                          _mm_cmpeq_epi8(right, _mm_add_epi8(here, one)));
    const int mask = _mm_movemask_epi8(rise);
    if (mask != 0) return x - 15 + (31 - __builtin_clz(static_cast<unsigned>(mask)));
  }
#endif
  for (; x >= stop; --x) {
    if (rises_at(c, x + 1)) return x;
  }
  return stop - 1;
}

// Corrects the period index at stripe edges where code and phase disagree,
// then makes the phase absolute: p + c * 2pi. Only columns where the index
// rises by one can be corrected, so both passes jump from one such column
// to the next; the scan reads the codes as the pass has left them.
void unwrap_row(const Rows& r, int width, double margin) {
  std::uint8_t* c = r.code;
  double* p = r.phase;
  std::uint8_t* s = r.status;
  const std::uint8_t* I0 = r.fringe[0];
  const std::uint8_t* I1 = r.fringe[1];
  const std::uint8_t* I2 = r.fringe[2];
  const std::uint8_t* I3 = r.fringe[3];
  const double t = margin;

  // Forward: the code rose at x but the phase has not wrapped yet.
  const int forward_end = width - 2;
  for (int x = next_rise(c, 2, forward_end); x < forward_end; x = next_rise(c, x + 1, forward_end)) {
    if (s[x] != kPsGood || !(p[x] > t)) continue;
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

  // Backward: the phase wrapped before the code rose. Uses the other fringe
  // pair for its consistency test and ignores the status.
  for (int x = previous_rise(c, width - 2, 3); x > 2; x = previous_rise(c, x, 3)) {
    if (!(p[x] < -t) || p[x] > t) {
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
  for (int x = 0; x < width; ++x) p[x] = p[x] + c[x] * kTwoPi;
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

namespace {

// The fits themselves; the exported functions and the matcher share them
// (the matcher calls these directly: an exported function is reached
// through the library's symbol table and never inlined).
inline bool least_mean_3(double& out, const double* p, const unsigned char* s, int i, double x,
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

inline bool least_mean_5(double& out, const double* p, const unsigned char* s, int i, double x,
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

}  // namespace

bool set_disparity_least_mean_3(double& out, double* p, unsigned char* s, int i, double x,
                                double target) {
  return least_mean_3(out, p, s, i, x, target);
}

bool set_disparity_least_mean_5(double& out, double* p, unsigned char* s, int i, double x,
                                double target) {
  return least_mean_5(out, p, s, i, x, target);
}

// ---------------------------------------------------------------------------
// Lifecycle and intake

PhaseShift::PhaseShift() = default;
PhaseShift::~PhaseShift() = default;

void PhaseShift::destroy() { delete this; }

bool PhaseShift::init(int width, int height) {
  if (!PointCloudGenerator::init(width, height)) return false;
  // Out of memory is reported like the base buffers' failure: false, and
  // the object stays usable for another init.
  try {
    if (!resize_planes(width, height)) return false;
    matchers_.resize(static_cast<std::size_t>(std::max(1, sl3d::num_threads())));
    for (sl3d::detail::PhaseRowMatcher& m : matchers_) m.reserve(width);
  } catch (const std::bad_alloc&) {
    return false;
  }
  // The arctangent table is built once per process; build it here rather
  // than in the first exec.
  sl3d::detail::prepare_phase_table();
  return true;
}

void PhaseShift::place_planes(sl3d::detail::PlaneLayout& layout, int width, int height) {
  layout.place(disparity_map_, height, width);
  for (CameraPlanes& cam : cams_) layout.place(cam.phase, height, width);
  for (CameraPlanes& cam : cams_) {
    layout.place(cam.status, height, width);
    layout.place(cam.black, height, width);
    layout.place(cam.white, height, width);
    for (Plane<std::uint8_t>& g : cam.gray) layout.place(g, height, width);
    for (Plane<std::uint8_t>& f : cam.fringe) layout.place(f, height, width);
    layout.place(cam.code, height, width);
  }
  layout.place(threshold_, height, width);
  layout.place(match_flags_, height, width);
}

// All planes share one block. When the pixel count is unchanged the block,
// and with it every plane's contents, is kept; otherwise a new, zeroed one
// replaces it.
bool PhaseShift::resize_planes(int width, int height) {
  sl3d::detail::PlaneLayout sizing(nullptr);
  place_planes(sizing, width, height);
  const bool same_count = cams_[0].status.size() == static_cast<std::size_t>(width) * height;
  if (!same_count || plane_memory_.size() != sizing.used()) {
    plane_memory_ = sl3d::detail::ZeroedBuffer::allocate(sizing.used());
    if (plane_memory_.empty() && sizing.used() > 0) return false;
  }
  sl3d::detail::PlaneLayout layout(plane_memory_.data());
  place_planes(layout, width, height);
  return true;
}

void PhaseShift::setparams(void* p) {
  std::memcpy(&params_, p, sizeof(PhaseShiftParams));
  if (params_.fit_width != 3 && params_.fit_width != 5) params_.fit_width = 3;
}

void PhaseShift::setpict(unsigned char* img, unsigned long step, int camera, int index) {
  // Out-of-range camera numbers are ignored rather than written past the
  // two camera plane sets.
  if (camera != 0 && camera != 1) return;
  CameraPlanes& cam = cams_[camera];
  Plane<std::uint8_t>* plane = nullptr;
  if (index == 0) {
    plane = &cam.black;
  } else if (index == 1) {
    plane = &cam.white;
  } else if (index >= kFirstGrayIndex && index < kFirstGrayIndex + kGrayBits) {
    // Stored minus black with a floor at zero, in the same pass as the copy.
    // Byte stores may alias anything, so the bounds are read into locals.
    Plane<std::uint8_t>& gray = cam.gray[index - kFirstGrayIndex];
    const int rows = gray.rows();
    const int cols = gray.cols();
    for (int y = 0; y < rows; ++y, img += step) {
      std::uint8_t* __restrict out = gray.row(y);
      const std::uint8_t* __restrict b = cam.black.row(y);
      const std::uint8_t* __restrict in = img;
      for (int x = 0; x < cols; ++x) {
        out[x] = in[x] > b[x] ? static_cast<std::uint8_t>(in[x] - b[x]) : 0;
      }
    }
    return;
  } else if (index >= kFirstFringeIndex && index < kFirstFringeIndex + kFringes) {
    plane = &cam.fringe[index - kFirstFringeIndex];
  } else {
    return;
  }
  const int rows = plane->rows();
  const std::size_t cols = static_cast<std::size_t>(plane->cols());
  for (int y = 0; y < rows; ++y, img += step) std::memcpy(plane->row(y), img, cols);
}

// The white image of camera 0 is the texture: it is the plane setpict
// fills, read in place rather than copied.
int PhaseShift::genPC(int mode) { return generate_pointcloud(mode, cams_[0].white.data()); }

// ---------------------------------------------------------------------------
// Decoding

// Runs the chosen decoding steps on rows [y0, y1) of `camera`; y0 is a
// multiple of 8 and y1 a multiple of 8 or the height, so that the rows hold
// whole blocks.
void PhaseShift::decode_rows(int camera, int y0, int y1, bool code, bool status, bool phase,
                             bool unwrap) {
  CameraPlanes& cam = cams_[camera];
  const int w = width();
  const auto rows = [&](int y) {
    Rows r;
    r.black = cam.black.row(y);
    r.white = cam.white.row(y);
    for (int k = 0; k < kGrayBits; ++k) r.gray[k] = cam.gray[k].row(y);
    for (int k = 0; k < kFringes; ++k) r.fringe[k] = cam.fringe[k].row(y);
    r.threshold = threshold_.row(y);
    r.code = cam.code.row(y);
    r.status = cam.status.row(y);
    r.phase = cam.phase.row(y);
    return r;
  };
  if (code || status) {
    for (int y = y0; y < y1; ++y) {
      const Rows r = rows(y);
      if (code) code_row(r, w);
      if (status) status_row(r, w, params_);
    }
    if (status) block_consistency(cam.code.data(), cam.status.data(), w, y0, y1);
  }
  for (int y = y0; y < y1 && (phase || unwrap); ++y) {
    const Rows r = rows(y);
    if (phase) phase_row(r, w);
    if (unwrap) unwrap_row(r, w, params_.unwrap_phase_margin);
  }
}

void PhaseShift::mk_code7(int camera) { decode_rows(camera, 0, height(), true, false, false, false); }

void PhaseShift::check_code7(int camera) {
  decode_rows(camera, 0, height(), false, true, false, false);
}

void PhaseShift::mk_phase(int camera) { decode_rows(camera, 0, height(), false, false, true, false); }

void PhaseShift::unwrap(int camera) { decode_rows(camera, 0, height(), false, false, false, true); }

// The steps of each camera depend only on the rows of one 8-row band, so
// exec runs them band by band while the band's rows are in cache, camera 0
// before camera 1 (the threshold image ends up camera 1's, as after the
// steps one by one), and splits the bands over the library's threads.
int PhaseShift::exec() {
  const int bands = (height() + kBlock - 1) / kBlock;
  sl3d::detail::run_chunks(
      sl3d::detail::chunks_for(bands, kMinBandsPerChunk), bands, [&](int, int b0, int b1) {
        for (int band = b0; band < b1; ++band) {
          const int y0 = band * kBlock;
          const int y1 = std::min(y0 + kBlock, height());
          for (int camera = 0; camera < 2; ++camera) {
            decode_rows(camera, y0, y1, true, true, true, true);
          }
        }
      });
  return make_disparity_data();
}

// ---------------------------------------------------------------------------
// Disparity

namespace {

// The first pixel whose left neighbour this row's matching must see.
bool neighbours_agree(const double* D, const double* D_above, int x, bool has_left, double step) {
  return !((has_left && std::fabs(D[x - 1] - D[x]) > step) || std::fabs(D_above[x] - D[x]) > step);
}

// Match flags of camera-0 pixels while rows are matched in chunks.
constexpr std::uint8_t kRejected = 0;
constexpr std::uint8_t kKept = 1;
constexpr std::uint8_t kNeighboursPending = 2;

}  // namespace

// What one chunk of rows reports back: how many records it keeps.
struct PhaseShift::MatchChunk {
  // Rows whose records are appended to the list at once; otherwise the
  // keep/reject verdict goes to match_flags_ and the records are written
  // later at the chunk's offset.
  bool append = true;
  // For the chunk's first row: test the neighbours later, once the row above
  // (another chunk's) is final.
  bool defer_first_row = false;
  int kept = 0;
};

int PhaseShift::make_disparity_data() {
  clear_disparities();
  const int chunks = sl3d::detail::chunks_for(height(), kMinRowsPerChunk);
  if (matchers_.size() < static_cast<std::size_t>(chunks)) {
    matchers_.resize(static_cast<std::size_t>(chunks));
    for (sl3d::detail::PhaseRowMatcher& m : matchers_) m.reserve(width());
  }
  if (chunks == 1) {
    MatchChunk whole;
    match_rows(0, height(), matchers_[0], whole);
    return height();
  }
  set_disparity_count(match_in_chunks(chunks));
  return height();
}

// Matching in chunks of rows, one per thread. Each pixel's match, fit,
// disparity and usage counts depend on its own row alone; only the
// neighbour test reads the row above, which for a chunk's first row belongs
// to the previous chunk. So each chunk matches its rows and flags the
// pixels it keeps, deferring that one test for its first row; then those
// rows are tested; then, the counts known, each chunk writes its records at
// its offset in the list. The list, statuses and maps are those of matching
// the rows one after the other.
int PhaseShift::match_in_chunks(int chunks) {
  std::vector<MatchChunk> parts(static_cast<std::size_t>(chunks));
  std::vector<int> first_rows(static_cast<std::size_t>(chunks) + 1);
  for (int k = 0; k <= chunks; ++k) {
    first_rows[k] = static_cast<int>(static_cast<long long>(height()) * k / chunks);
  }
  sl3d::detail::run_chunks(chunks, height(), [&](int k, int y0, int y1) {
    MatchChunk& part = parts[static_cast<std::size_t>(k)];
    part.append = false;
    part.defer_first_row = k > 0;
    match_rows(y0, y1, matchers_[static_cast<std::size_t>(k)], part);
  });
  const double step = params_.max_neighbor_disparity_step;
  for (int k = 1; k < chunks; ++k) {
    const int y = first_rows[k];
    std::uint8_t* flags = match_flags_.row(y);
    std::uint8_t* S0 = cams_[0].status.row(y);
    const double* D = disparity_map_.row(y);
    const double* D_above = disparity_map_.row(y - 1);
    for (int x = 0; x < width(); ++x) {
      if (flags[x] != kNeighboursPending) continue;
      if (neighbours_agree(D, D_above, x, true, step)) {
        flags[x] = kKept;
        ++parts[static_cast<std::size_t>(k)].kept;
      } else {
        flags[x] = kRejected;
        S0[x] = kPsDisparityStep;
      }
    }
  }
  std::vector<int> offsets(static_cast<std::size_t>(chunks) + 1, 0);
  for (int k = 0; k < chunks; ++k) offsets[k + 1] = offsets[k] + parts[static_cast<std::size_t>(k)].kept;
  sl3d::detail::run_chunks(chunks, height(), [&](int k, int y0, int y1) {
    int index = offsets[static_cast<std::size_t>(k)];
    for (int y = y0; y < y1; ++y) {
      const std::uint8_t* flags = match_flags_.row(y);
      const double* D = disparity_map_.row(y);
      for (int x = 0; x < width(); ++x) {
        if (flags[x] == kKept) write_disparity(index++, x, y, D[x]);
      }
    }
  });
  return offsets[static_cast<std::size_t>(chunks)];
}

void PhaseShift::match_rows(int y0, int y1, sl3d::detail::PhaseRowMatcher& matcher,
                            MatchChunk& chunk) {
  const int width = this->width();
  const PhaseShiftParams& prm = params_;
  const int half = prm.fit_width == 5 ? 2 : 1;
  // Counted here and stored once: the chunks' records sit side by side, and
  // a count written per pixel would bounce their cache line between threads.
  int kept = 0;
  for (int y = y0; y < y1; ++y) {
    double* P0 = cams_[0].phase.row(y);
    double* P1 = cams_[1].phase.row(y);
    std::uint8_t* S0 = cams_[0].status.row(y);
    std::uint8_t* S1 = cams_[1].status.row(y);
    const std::uint8_t* W0 = cams_[0].white.row(y);
    const std::uint8_t* W1 = cams_[1].white.row(y);
    double* D = disparity_map_.row(y);
    const double* D_above = y > 0 ? disparity_map_.row(y - 1) : D;
    std::uint8_t* flags = chunk.append ? nullptr : match_flags_.row(y);
    const bool defer = chunk.defer_first_row && y == y0;
    matcher.reset(P1, S1, width, prm.max_uses_per_right_pixel);

    int hint = -1;
    for (int x = 0; x < width; ++x) {
      if (flags != nullptr) flags[x] = kRejected;
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
      // The fit needs two (or four) neighbours of the match inside the row;
      // at the row ends a missing neighbour counts as rejected, giving the
      // integer match.
      bool fitted = true;
      if (best - half < 0 || best + half >= width) {
        D[x] = x - best;
      } else if (half == 2) {
        fitted = least_mean_5(D[x], P1, S1, best, x, P0[x]);
      } else {
        fitted = least_mean_3(D[x], P1, S1, best, x, P0[x]);
      }
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
      if (defer) {
        flags[x] = kNeighboursPending;
        continue;
      }
      // The map is never cleared: neighbours hold whatever a fit last wrote,
      // also when that pixel was rejected afterwards. For x = 0 the left
      // neighbour is the previous row's last pixel; the image's very first
      // pixel has no left neighbour and passes.
      const bool has_left = !(y == 0 && x == 0);
      if (!neighbours_agree(D, D_above, x, has_left, prm.max_neighbor_disparity_step)) {
        S0[x] = kPsDisparityStep;
        continue;
      }
      if (flags != nullptr) {
        flags[x] = kKept;
        ++kept;
      } else {
        append_disparity(x, y, D[x]);
      }
    }
  }
  chunk.kept += kept;
}
