// The phase matcher must reproduce, bit for bit, the straightforward
// left-to-right scan over every candidate column: same best column, same
// ties, same usage counts, same statuses and disparities. The scan below is
// that reference; it is compared with PhaseShift::make_disparity_data on
// adversarial hand-made rows and on rendered captures.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include <sl3d/psft/psft.h>
#include <sl3d/sim/virtual_sensor.h>

#include "support/reference_phase_match.h"

namespace {

using sl3d::testing::MatchState;
using sl3d::testing::reference_match;
using ByteImage = PhaseShift::ByteImage;
using DoubleImage = PhaseShift::DoubleImage;

// Runs the library's matcher on the same state.
MatchState library_match(const PhaseShiftParams& prm, const MatchState& in) {
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  EXPECT_TRUE(gen->init(static_cast<int>(in.p0.cols()), static_cast<int>(in.p0.rows())));
  PhaseShiftParams copy = prm;
  gen->setparams(&copy);
  sl3d::testing::load_for_matching(*gen, in);
  gen->make_disparity_data();
  MatchState out = in;
  out.s0 = gen->status_map(0);
  out.s1 = gen->status_map(1);
  out.d = gen->disparity_map();
  out.records.assign(gen->get_disparity_ptr(), gen->get_disparity_ptr() + 4 * gen->get_disparity_cnt());
  gen->destroy();
  return out;
}

void expect_same_as_reference(const PhaseShiftParams& prm, const MatchState& start) {
  MatchState expected = start;
  reference_match(prm, expected);
  const MatchState actual = library_match(prm, start);
  EXPECT_TRUE(actual.s0 == expected.s0) << "camera-0 statuses differ";
  EXPECT_TRUE(actual.s1 == expected.s1) << "usage counts differ";
  // Bitwise: NaN never occurs, and equal doubles compare equal.
  EXPECT_TRUE(actual.d == expected.d) << "disparity maps differ";
  ASSERT_EQ(actual.records.size(), expected.records.size());
  EXPECT_EQ(actual.records, expected.records);
}

MatchState blank_state(int width, int height) {
  MatchState st;
  st.p0 = DoubleImage::Zero(height, width);
  st.p1 = DoubleImage::Zero(height, width);
  st.s0 = ByteImage::Zero(height, width);
  st.s1 = ByteImage::Zero(height, width);
  st.w0 = ByteImage::Constant(height, width, 100);
  st.w1 = ByteImage::Constant(height, width, 100);
  st.d = DoubleImage::Zero(height, width);
  return st;
}

// Phases drawn from a few coarse levels, so that equal values and equal
// differences are everywhere; statuses mix good, used and rejected pixels.
MatchState random_state(std::mt19937& rng, int width, int height, int levels) {
  MatchState st = blank_state(width, height);
  std::uniform_int_distribution<int> level(0, levels - 1);
  std::uniform_int_distribution<int> percent(0, 99);
  std::uniform_int_distribution<int> white(0, 255);
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

TEST(PhaseMatcher, UsedUpPixelsPassTheMatchToTheNextBest) {
  // Every camera-0 pixel wants camera-1 column 5; each column may be used
  // twice, so the matches walk outward in order of phase difference.
  MatchState st = blank_state(12, 1);
  for (int x = 0; x < 12; ++x) {
    st.p0(0, x) = 5.0;
    st.p1(0, x) = 0.5 * x + 2.5;  // column 5 holds exactly 5.0
  }
  PhaseShiftParams prm;
  prm.max_neighbor_disparity_step = 100.0;
  prm.max_phase_difference = 3.0;
  expect_same_as_reference(prm, st);
  const MatchState out = library_match(prm, st);
  EXPECT_EQ(out.s1(0, 5), 2);
  EXPECT_EQ(out.s1(0, 4), 2);  // 4.5 and 5.5 tie: the left one goes first
  EXPECT_EQ(out.s1(0, 6), 2);
}

TEST(PhaseMatcher, EqualsTheScanOnRenderedCaptures) {
  sl3d::SimRig rig = sl3d::SimRig::scaled(320, 96);
  const sl3d::VirtualSensor sensor(rig);
  sl3d::SimLight light;
  light.noise_sigma = 2.0;
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  ASSERT_TRUE(gen->init(rig.width, rig.height));
  for (int camera = 0; camera < 2; ++camera) {
    std::vector<cv::Mat> frames = sensor.render_phase_shift(camera, light);
    for (int i = 0; i < 13; ++i) gen->setpict(frames[i].data, frames[i].step, camera, i);
  }
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
