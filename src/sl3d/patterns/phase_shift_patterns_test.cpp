// The projector frames must be what PhaseShift decodes: fed to it as if a
// camera saw the projector's own pixels, every column of the usable periods
// decodes to its period index and to the phase the layout states, and
// every other column is rejected.

#include <gtest/gtest.h>

#include <cmath>

#include <sl3d/patterns/phase_shift_patterns.h>
#include <sl3d/psft/psft.h>

namespace sl3d {
namespace {

TEST(PhaseShiftPatterns, DefaultPeriodAndRefusedSizes) {
  const struct {
    int width, height, period;
    bool valid;
    int expected_period, expected_first_column;
  } cases[] = {
      {1920, 1080, 0, true, 15, 0},   {1366, 768, 0, true, 10, 43},
      {800, 600, 0, true, 6, 16},     {256, 1, 0, true, 2, 0},
      {1920, 1080, 12, true, 12, 192}, {255, 100, 0, false, 0, 0},
      {1920, 1080, 16, false, 0, 0},  {-1920, 0, 0, false, 0, 0},
      {kMaxProjectorSide + 1, 8, 0, false, 0, 0},
  };
  for (const auto& c : cases) {
    PhaseShiftPatternLayout layout;
    EXPECT_EQ(phase_shift_pattern_layout(c.width, c.height, c.period, layout), c.valid)
        << c.width << "x" << c.height << " period " << c.period;
    const std::vector<cv::Mat> frames = make_phase_shift_patterns(c.width, c.height, c.period);
    if (!c.valid) {
      EXPECT_TRUE(frames.empty());
      continue;
    }
    EXPECT_EQ(layout.period, c.expected_period);
    EXPECT_EQ(layout.first_column, c.expected_first_column);
    ASSERT_EQ(frames.size(), 13u);
    for (const cv::Mat& f : frames) {
      EXPECT_EQ(f.type(), CV_8UC1);
      EXPECT_EQ(f.size(), cv::Size(c.width, c.height));
    }
  }
}

class DecodedPatterns : public ::testing::TestWithParam<int> {};

TEST_P(DecodedPatterns, EveryUsableColumnDecodesToItsPeriodAndPhase) {
  const int period = GetParam();
  const int width = 1920, height = 8;
  PhaseShiftPatternLayout layout;
  ASSERT_TRUE(phase_shift_pattern_layout(width, height, period, layout));
  const std::vector<cv::Mat> frames = make_phase_shift_patterns(width, height, period);
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  ASSERT_TRUE(gen->init(width, height));
  for (int i = 0; i < 13; ++i) gen->setpict(frames[i].data, frames[i].step, 0, i);
  gen->mk_code7(0);
  gen->check_code7(0);
  gen->mk_phase(0);
  gen->unwrap(0);
  double worst_phase_error = 0.0;
  for (int x = 0; x < width; ++x) {
    const bool usable = x >= layout.usable_begin() && x < layout.usable_end();
    const int status = gen->status_map(0)(4, x);
    if (!usable) {
      EXPECT_GE(status, 200) << "column " << x;
      continue;
    }
    ASSERT_EQ(status, 0) << "column " << x;
    EXPECT_EQ(gen->code_map(0)(4, x), layout.period_index(x + 0.5)) << "column " << x;
    worst_phase_error = std::max(
        worst_phase_error, std::fabs(gen->phase_map(0)(4, x) - layout.absolute_phase(x + 0.5)));
  }
  gen->destroy();
  // Half a grey level of rounding on a swing of 255 levels.
  EXPECT_LT(worst_phase_error, 0.006);
}

INSTANTIATE_TEST_SUITE_P(Periods, DecodedPatterns, ::testing::Values(2, 3, 12, 15));

}  // namespace
}  // namespace sl3d
