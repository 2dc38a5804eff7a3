// The filter on hand-made disparity lists: what goes, what stays, in which
// order, and what bad arguments do.

#include <sl3d/pointcloud/disparity_filter.h>

#include <vector>

#include <gtest/gtest.h>

namespace sl3d {
namespace {

constexpr int kWidth = 16, kHeight = 12;

// A plane of disparity 40 over the whole image, records row by row.
std::vector<double> plane_records() {
  std::vector<double> r;
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x) r.insert(r.end(), {double(x), double(y), 40.25, 1.0});
  return r;
}

double& disparity_at(std::vector<double>& r, int x, int y) {
  return r[4 * (std::size_t(y) * kWidth + x) + 2];
}

TEST(DisparityFilter, DropsDecodeRejectsSpikesAndIslandsAndKeepsTheOrder) {
  std::vector<double> r = plane_records();
  std::vector<std::uint8_t> status(kWidth * kHeight, 0);
  status[3 * kWidth + 4] = 201;   // decode rejected at (4, 3)
  disparity_at(r, 10, 6) = 45.5;  // a lone spike
  // A 2 x 2 island far off the plane (its neighbours then fail the step
  // test too, which is what a depth edge costs).
  for (int y = 8; y < 10; ++y)
    for (int x = 2; x < 4; ++x) disparity_at(r, x, y) = 60.5;
  DisparityFilterOptions options;
  options.min_patch_size = 5;
  const DisparityFilterReport report = filter_disparity_records(
      r.data(), kWidth * kHeight, kWidth, kHeight, status.data(), nullptr, options);
  ASSERT_TRUE(report.ok);
  EXPECT_EQ(report.decode_rejected, 1);
  EXPECT_EQ(report.removed() + report.kept, kWidth * kHeight);
  EXPECT_EQ(report.integer_refitted, 0);
  double previous = -1.0;
  for (int i = 0; i < report.kept; ++i) {
    const double* rec = &r[4 * std::size_t(i)];
    EXPECT_EQ(rec[2], 40.25) << "at " << rec[0] << ", " << rec[1];
    EXPECT_EQ(rec[3], 1.0);
    const double order = rec[1] * kWidth + rec[0];
    EXPECT_GT(order, previous);
    previous = order;
    EXPECT_FALSE(rec[0] == 4 && rec[1] == 3);
  }
  // The plane loses only the rejects, the spike and the island's rim.
  EXPECT_GE(report.kept, kWidth * kHeight - 1 - 1 - 4 - 12 - 4);
}

TEST(DisparityFilter, AGentleSlopeStaysWhole) {
  std::vector<double> r = plane_records();
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x) disparity_at(r, x, y) = 30.0 + 0.6 * x + 0.3 * y + 0.01;
  const DisparityFilterReport report =
      filter_disparity_records(r.data(), kWidth * kHeight, kWidth, kHeight, nullptr);
  EXPECT_TRUE(report.ok);
  EXPECT_EQ(report.removed(), 0);
  EXPECT_EQ(report.kept, kWidth * kHeight);
}

TEST(DisparityFilter, BadArgumentsRemoveNothing) {
  std::vector<double> r = plane_records();
  const std::vector<double> copy = r;
  EXPECT_FALSE(filter_disparity_records(nullptr, 4, kWidth, kHeight, nullptr).ok);
  EXPECT_FALSE(filter_disparity_records(r.data(), -1, kWidth, kHeight, nullptr).ok);
  EXPECT_FALSE(filter_disparity_records(r.data(), 4, 0, kHeight, nullptr).ok);
  EXPECT_EQ(r, copy);
  // Records off the image or between pixels are left alone.
  std::vector<double> odd = {-3.0, 2.0, 40.0, 1.0, 2.5, 2.0, 40.0, 1.0, 99.0, 99.0, 7.0, 1.0};
  const DisparityFilterReport report =
      filter_disparity_records(odd.data(), 3, kWidth, kHeight, nullptr);
  EXPECT_TRUE(report.ok);
  EXPECT_EQ(report.kept, 3);
  EXPECT_TRUE(filter_disparity_records(nullptr, 0, kWidth, kHeight, nullptr).ok);
}

}  // namespace
}  // namespace sl3d
