// Decoding behaviours a plausible but wrong implementation would get wrong
// (8-bit arithmetic, Gray-code order, block consistency, the asymmetric
// unwrap, the sub-pixel fits); results independent of the heap's past and of
// the thread count; and the optimised phase and matching steps equal, bit for
// bit, to atan2 and to the plain scan over every candidate column.

#include <malloc.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include <sl3d/pointcloud/threads.h>
#include <sl3d/psft/phase_table.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sim/virtual_sensor.h>

#include "support/reference_phase_match.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;

// A generator of w x h whose frames are filled per pixel by the caller.
class Frames {
 public:
  Frames(int w, int h) : w_(w), frames_(13, std::vector<unsigned char>(w * h, 0)) {
    gen_ = static_cast<PhaseShift*>(createPointCloudGenerator(0));
    EXPECT_TRUE(gen_->init(w, h));
  }
  ~Frames() { gen_->destroy(); }

  unsigned char& at(int frame, int x, int y) { return frames_[frame][y * w_ + x]; }
  // Sets black, white and the Gray-code frames of pixel (x, y) for period c.
  void set_period(int x, int y, int c, unsigned char black = 10, unsigned char white = 210) {
    at(0, x, y) = black;
    at(1, x, y) = white;
    const int gray = c ^ (c >> 1);
    for (int k = 0; k < 7; ++k) at(2 + k, x, y) = (gray >> (6 - k)) & 1 ? white : black;
  }
  PhaseShift& hand_in(int camera = 0) {
    for (int i = 0; i < 13; ++i) gen_->setpict(frames_[i].data(), w_, camera, i);
    return *gen_;
  }

 private:
  int w_;
  std::vector<std::vector<unsigned char>> frames_;
  PhaseShift* gen_;
};

TEST(PhaseShiftIntake, PaddedRowsAreSkipped) {
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  ASSERT_TRUE(gen->init(3, 2));
  // Rows of 3 pixels stored 5 bytes apart; the padding must not leak in.
  unsigned char img[10] = {1, 2, 3, 99, 99, 4, 5, 6, 99, 99};
  gen->setpict(img, 5, 1, 1);
  PhaseShift::ByteImage expected(2, 3);
  expected << 1, 2, 3, 4, 5, 6;
  EXPECT_TRUE(gen->white_image(1) == expected);
  gen->destroy();
}

TEST(GrayCode, ThresholdWrapsInEightBitsAndDarkGrayBitsAreOff) {
  Frames f(8, 8);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) f.set_period(x, y, 50);
  // Black brighter than white by 2: (white - black) wraps to 254, so the
  // threshold is 127, and the pixel is rejected for its contrast.
  f.at(0, 3, 3) = 100;
  f.at(1, 3, 3) = 98;
  // A Gray-code value below black is stored as 0 and never sets its bit.
  f.set_period(5, 5, 50, 200, 250);
  for (int k = 0; k < 7; ++k) f.at(2 + k, 5, 5) = 150;
  PhaseShift& gen = f.hand_in();
  gen.mk_code7(0);
  EXPECT_EQ(gen.threshold_image()(3, 3), 127);
  EXPECT_EQ(gen.code_map(0)(5, 5), 0);
  gen.check_code7(0);
  EXPECT_EQ(gen.status_map(0)(3, 3), 201);
}

// 8 x 8 blocks, clipped at the right and lower edges of a 20 x 10 image.
TEST(GrayCode, BlocksRejectPixelsFarFromTheirBlockMean) {
  Frames f(20, 10);
  for (int y = 0; y < 10; ++y)
    for (int x = 0; x < 20; ++x) f.set_period(x, y, x < 8 ? 50 : 80);
  f.set_period(2, 2, 57);  // 7 above its block's mean of about 50
  f.set_period(3, 3, 53);  // 3 above: kept
  f.set_period(4, 4, 60, 10, 15);  // too little contrast: 201 and code 0
  f.set_period(9, 1, 100);  // outside 25..96 and far from the mean
  f.set_period(19, 9, 88);  // 7 above the mean of its 4 x 2 corner block
  PhaseShift& gen = f.hand_in();
  gen.mk_code7(0);
  gen.check_code7(0);
  const auto& s = gen.status_map(0);
  EXPECT_EQ(s(2, 2), 201);
  EXPECT_EQ(s(3, 3), 0);
  EXPECT_EQ(s(0, 0), 0);
  EXPECT_EQ(s(4, 4), 201);
  EXPECT_EQ(gen.code_map(0)(4, 4), 0);
  // The block step zeroes its code and then, with the block mean near 80,
  // marks it 201 over the range code 202.
  EXPECT_EQ(gen.code_map(0)(1, 9), 0);
  EXPECT_EQ(s(1, 9), 201);
  EXPECT_EQ(s(0, 8), 0);
  EXPECT_EQ(s(9, 19), 201);
  EXPECT_EQ(s(9, 18), 0);
}

// One row whose code and wrapped phase are given directly; returns the
// codes after unwrapping and the absolute phases.
struct UnwrapRow {
  std::vector<int> code;
  std::vector<double> phase;
};

UnwrapRow unwrap_row(const std::vector<int>& code, const std::vector<double>& wrapped) {
  const int w = static_cast<int>(code.size());
  Frames f(w, 1);
  for (int x = 0; x < w; ++x) {
    f.set_period(x, 0, code[x]);
    // Fringes that produce the wanted wrapped phase with a strong, clean
    // modulation (so no edge is marked inconsistent).
    for (int k = 0; k < 4; ++k) {
      const double level = 128 - 100 * std::cos(wrapped[x] - k * kTwoPi / 4);
      f.at(9 + k, x, 0) = static_cast<unsigned char>(std::lround(level));
    }
  }
  PhaseShift& gen = f.hand_in();
  gen.mk_code7(0);
  gen.check_code7(0);
  gen.mk_phase(0);
  gen.unwrap(0);
  UnwrapRow out;
  for (int x = 0; x < w; ++x) {
    out.code.push_back(gen.code_map(0)(0, x));
    out.phase.push_back(gen.phase_map(0)(0, x));
  }
  return out;
}

TEST(Unwrap, CorrectsCodesThatRoseEarlyOrLate) {
  // Period 40 -> 41; the phase wraps between columns 5 and 6.
  const std::vector<double> wrapped = {1.5, 2.0, 2.5, 2.8, 3.0, 3.1, -3.0, -2.7, -2.3, -2.0};
  // Code rises one column early (at 5, phase still near +pi).
  const UnwrapRow early = unwrap_row({40, 40, 40, 40, 40, 41, 41, 41, 41, 41}, wrapped);
  EXPECT_EQ(early.code, (std::vector<int>{40, 40, 40, 40, 40, 40, 41, 41, 41, 41}));
  // Code rises two columns late (at 8, phase already near -pi at 6 and 7).
  const UnwrapRow late = unwrap_row({40, 40, 40, 40, 40, 40, 40, 40, 41, 41}, wrapped);
  EXPECT_EQ(late.code, (std::vector<int>{40, 40, 40, 40, 40, 40, 41, 41, 41, 41}));
  // Either way the absolute phase now rises steadily.
  for (const UnwrapRow* row : {&early, &late}) {
    for (std::size_t x = 1; x < row->phase.size(); ++x) {
      EXPECT_GT(row->phase[x], row->phase[x - 1]) << x;
      EXPECT_LT(row->phase[x] - row->phase[x - 1], 1.0) << x;
    }
  }
  // Images too narrow for the correction only add the code.
  const UnwrapRow narrow = unwrap_row({40, 41, 41, 41}, {3.0, 3.0, 3.0, 3.0});
  EXPECT_EQ(narrow.code, (std::vector<int>{40, 41, 41, 41}));
  EXPECT_NEAR(narrow.phase[1] - narrow.phase[0], kTwoPi, 0.05);
}

TEST(SubPixelFit, ThreeAndFiveSamplesFollowTheLine) {
  double p[] = {0.0, 1.0, 2.0, 3.0, 4.0};
  unsigned char s[] = {0, 0, 0, 0, 0};
  double out = 0.0;
  // Target 2.25 lies a quarter pixel right of column 2.
  ASSERT_TRUE(set_disparity_least_mean_3(out, p, s, 2, 10.0, 2.25));
  EXPECT_DOUBLE_EQ(out, 10.0 - 2.25);
  // A rejected neighbour gives the integer match; usage counts do not.
  s[3] = 200;
  ASSERT_TRUE(set_disparity_least_mean_3(out, p, s, 2, 10.0, 2.25));
  EXPECT_EQ(out, 8.0);
  s[3] = 199;
  ASSERT_TRUE(set_disparity_least_mean_3(out, p, s, 2, 10.0, 2.25));
  EXPECT_DOUBLE_EQ(out, 7.75);
  // A flat neighbourhood has no slope: the fit fails and `out` is kept.
  double flat[] = {1.0, 1.0, 1.0};
  unsigned char ok[] = {0, 0, 0};
  out = -1.0;
  EXPECT_FALSE(set_disparity_least_mean_3(out, flat, ok, 1, 10.0, 1.0));
  EXPECT_EQ(out, -1.0);

  // Five samples: the line reaches 3.5 half a pixel right of column 3; the
  // fit's slope is five times the line's, so the correction is 0.1 px.
  double p5[] = {0.0, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0};
  unsigned char s5[7] = {};
  ASSERT_TRUE(set_disparity_least_mean_5(out, p5, s5, 3, 10.0, 3.5));
  EXPECT_DOUBLE_EQ(out, 10.0 - 3.1);
  s5[1] = 201;  // the outer neighbour counts too
  ASSERT_TRUE(set_disparity_least_mean_5(out, p5, s5, 3, 10.0, 3.5));
  EXPECT_EQ(out, 7.0);
}

// ---------------------------------------------------------------------------
// Rendered captures

using Capture = std::array<std::vector<cv::Mat>, 2>;

Capture render(const sl3d::VirtualSensor& sensor, double noise_sigma) {
  sl3d::SimLight light;
  light.noise_sigma = noise_sigma;
  return {sensor.render_phase_shift(0, light), sensor.render_phase_shift(1, light)};
}

PhaseShift* generator_with(const Capture& frames) {
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  EXPECT_TRUE(gen->init(frames[0][0].cols, frames[0][0].rows));
  for (int c = 0; c < 2; ++c)
    for (int i = 0; i < 13; ++i) gen->setpict(frames[c][i].data, frames[c][i].step, c, i);
  return gen;
}

std::vector<double> records_of(const PhaseShift& gen) {
  return std::vector<double>(gen.get_disparity_ptr(),
                             gen.get_disparity_ptr() + 4 * gen.get_disparity_cnt());
}

// Measures a capture with a fresh generator and returns its disparity list.
// malloc fills the blocks it hands out during init with the byte ~perturb
// (glibc's M_PERTURB; 0 = off).
std::vector<double> fresh_measurement(const Capture& frames, int perturb = 0) {
  mallopt(M_PERTURB, perturb);
  PhaseShift* gen = generator_with(frames);
  mallopt(M_PERTURB, 0);
  // Cells without a point read -1 also before any Q route has reset them.
  const int* grid = gen->get_rangegrid();
  const int cells = gen->width() * gen->height();
  EXPECT_EQ(std::count(grid, grid + cells, -1), cells);
  gen->exec();
  const std::vector<double> records = records_of(*gen);
  gen->destroy();
  return records;
}

// The heap is dirtied the way a program dirties it, by generators that
// measured before (their freed planes, the disparity map among them, are
// what the next generator gets: malloc is told to keep freed memory rather
// than return it to the system), and by malloc's own fill pattern.
TEST(FreshGenerator, SameCaptureSameResultWhateverTheHeapHeld) {
  const sl3d::VirtualSensor sensor(sl3d::SimRig::scaled(96, 64));
  const Capture scene = render(sensor, 6.0), clean = render(sensor, 1.0);
  const std::vector<double> first = fresh_measurement(scene);
  EXPECT_GT(first.size(), 0u);
  EXPECT_EQ(fresh_measurement(scene, 0x41), first);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 1 << 25);
  for (const Capture* before : {&clean, &scene}) {
    fresh_measurement(*before);
    EXPECT_EQ(fresh_measurement(scene), first);
  }
}

// ---------------------------------------------------------------------------
// Exactness of the fast paths: the arctangent table, the threads and the
// phase matcher.

// The phase of every possible pair of fringe differences, against atan2
// itself: bit for bit, so that no period, match or disparity can differ.
TEST(Phase, EveryFringeCombinationGivesExactlyAtan2) {
  std::vector<unsigned char> i0(511 * 511), i1(511 * 511), i2(511 * 511), i3(511 * 511);
  for (int dy = -255; dy <= 255; ++dy) {
    for (int dx = -255; dx <= 255; ++dx) {
      const std::size_t k = static_cast<std::size_t>(dy + 255) * 511 + (dx + 255);
      i1[k] = static_cast<unsigned char>(dy < 0 ? -dy : 0);
      i3[k] = static_cast<unsigned char>(dy > 0 ? dy : 0);
      i0[k] = static_cast<unsigned char>(dx < 0 ? -dx : 0);
      i2[k] = static_cast<unsigned char>(dx > 0 ? dx : 0);
    }
  }
  std::vector<double> phase(i0.size());
  sl3d::detail::prepare_phase_table();
  sl3d::detail::wrapped_phase_row(i0.data(), i1.data(), i2.data(), i3.data(),
                                  static_cast<int>(i0.size()), phase.data());
  int mismatches = 0;
  for (std::size_t k = 0; k < phase.size(); ++k) {
    const double exact = std::atan2(double(i3[k]) - i1[k], double(i2[k]) - i0[k]);
    mismatches += std::memcmp(&exact, &phase[k], sizeof(double)) != 0;
  }
  EXPECT_EQ(mismatches, 0);
}

// Everything exec writes, on one thread and split over several: the same
// bits. A 320 x 256 capture splits into up to eight row chunks. (genPC's
// chunks are checked by pointcloud_test.)
TEST(Threads, ExecGivesTheSameBitsOnAnyNumberOfThreads) {
  const Capture frames = render(sl3d::VirtualSensor(sl3d::SimRig::scaled(320, 256)), 3.0);
  struct Result {
    std::vector<double> records;
    PhaseShift::ByteImage s0, s1, code0;
    PhaseShift::DoubleImage phase1, disparity;
  };
  const auto measure = [&](int threads) {
    sl3d::set_num_threads(threads);
    PhaseShift* gen = generator_with(frames);
    gen->exec();
    gen->exec();  // a second run starts from the first one's disparity map
    const Result r{records_of(*gen),     gen->status_map(0), gen->status_map(1),
                   gen->code_map(0),     gen->phase_map(1),  gen->disparity_map()};
    gen->destroy();
    sl3d::set_num_threads(1);
    return r;
  };
  const Result one = measure(1);
  ASSERT_GT(one.records.size(), 4u * 10000);
  for (int threads : {2, 3, 8}) {
    const Result many = measure(threads);
    EXPECT_EQ(many.records, one.records) << threads;
    EXPECT_TRUE(many.s0 == one.s0 && many.s1 == one.s1 && many.code0 == one.code0) << threads;
    EXPECT_TRUE(many.phase1 == one.phase1 && many.disparity == one.disparity) << threads;
  }
}

using sl3d::testing::MatchState;
using ByteImage = PhaseShift::ByteImage;
using DoubleImage = PhaseShift::DoubleImage;

// The library's matcher and the plain scan on the same state: the same
// statuses, usage counts, disparity map (bitwise; NaN never occurs) and list.
void expect_same_as_reference(const PhaseShiftParams& prm, const MatchState& start) {
  MatchState expected = start;
  sl3d::testing::reference_match(prm, expected);
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  EXPECT_TRUE(gen->init(static_cast<int>(start.p0.cols()), static_cast<int>(start.p0.rows())));
  PhaseShiftParams copy = prm;
  gen->setparams(&copy);
  sl3d::testing::load_for_matching(*gen, start);
  gen->make_disparity_data();
  EXPECT_TRUE(gen->status_map(0) == expected.s0) << "camera-0 statuses differ";
  EXPECT_TRUE(gen->status_map(1) == expected.s1) << "usage counts differ";
  EXPECT_TRUE(gen->disparity_map() == expected.d) << "disparity maps differ";
  EXPECT_EQ(records_of(*gen), expected.records);
  gen->destroy();
}

// Phases drawn from a few coarse levels, so that equal values and equal
// differences are everywhere; statuses mix good, used and rejected pixels.
MatchState random_state(std::mt19937& rng, int width, int height, int levels) {
  std::uniform_int_distribution<int> level(0, levels - 1);
  std::uniform_int_distribution<int> percent(0, 99);
  std::uniform_int_distribution<int> white(0, 255);
  MatchState st;
  st.p0 = st.p1 = st.d = DoubleImage(height, width);
  st.s0 = st.s1 = st.w0 = st.w1 = ByteImage(height, width);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      st.p0(y, x) = 0.25 * level(rng);
      st.p1(y, x) = 0.25 * level(rng);
      const int r = percent(rng);
      st.s1(y, x) = r < 10 ? 201 + r % 10 : (r < 20 ? 1 : 0);
      st.s0(y, x) = percent(rng) < 5 ? 203 : 0;
      st.w0(y, x) = static_cast<unsigned char>(white(rng));
      st.w1(y, x) = static_cast<unsigned char>(white(rng));
      st.d(y, x) = 0.5 * level(rng);
    }
  }
  return st;
}

TEST(PhaseMatcher, EqualsTheScanOnAdversarialRows) {
  std::mt19937 rng(12345);
  struct Case {
    int max_uses, fit_width;
    double min_d, max_d, max_step, max_phase_diff;
  };
  const Case cases[] = {
      {2, 3, -300.0, 400.0, 1.0, 1.5707963267948966},  // defaults: whole row searched
      {2, 5, -5.0, 7.0, 2.0, 1.0},                      // narrow windows, clipped at both ends
      {1, 3, 3.0, 9.0, 0.5, 0.6},                       // window entirely right of x
      {3, 5, -9.5, -2.5, 5.0, 2.0},                     // window entirely left, truncated bounds
      {255, 3, -20.0, 20.0, 3.0, 0.8},                  // rejected pixels may be chosen (204)
      {0, 3, -20.0, 20.0, 3.0, 0.8},                    // nothing usable
      {2, 3, 30.0, 10.0, 1.0, 1.0},                     // empty windows everywhere
      {2, 3, 3.0e9, 4.0e9, 1.0, 1.0},                   // bounds beyond int: empty
      {2, 3, -4.0e9, -3.0e9, 1.0, 1.0},
      {2, 3, -3.0e9, 3.0e9, 1.0, 1.0},                  // the whole row
  };
  for (const Case& c : cases) {
    PhaseShiftParams prm;
    prm.max_uses_per_right_pixel = c.max_uses;
    prm.fit_width = c.fit_width;
    prm.min_disparity = c.min_d;
    prm.max_disparity = c.max_d;
    prm.max_neighbor_disparity_step = c.max_step;
    prm.max_phase_difference = c.max_phase_diff;
    for (int levels : {3, 17}) {
      SCOPED_TRACE(::testing::Message() << "max uses " << c.max_uses << ", window [" << c.min_d
                                        << ", " << c.max_d << "), levels " << levels);
      expect_same_as_reference(prm, random_state(rng, 37, 6, levels));
    }
  }
}

TEST(PhaseMatcher, EqualsTheScanOnRenderedCaptures) {
  PhaseShift* gen = generator_with(render(sl3d::VirtualSensor(sl3d::SimRig::scaled(320, 96)), 2.0));
  const MatchState st = sl3d::testing::decode_for_matching(*gen);
  gen->destroy();
  for (int fit : {3, 5}) {
    for (int uses : {1, 2}) {
      PhaseShiftParams prm;
      prm.fit_width = fit;
      prm.max_uses_per_right_pixel = uses;
      SCOPED_TRACE(::testing::Message() << "fit " << fit << ", max uses " << uses);
      expect_same_as_reference(prm, st);
    }
  }
}

}  // namespace
