#include <sl3d/camera/rectify_map_io.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <sl3d/camera/camera_undistort.h>


namespace {

std::string bytes_of(const cv::Mat& m) {
  return std::string(reinterpret_cast<const char*>(m.data), m.total() * m.elemSize());
}

std::string header(int type, int cols, int rows) {
  std::ostringstream os;
  save_element<int>(os, type);
  save_element<int>(os, cols);
  save_element<int>(os, rows);
  return os.str();
}

std::int32_t int_at(const std::string& s, size_t offset) {
  std::int32_t v;
  std::memcpy(&v, s.data() + offset, 4);
  return v;
}

TEST(MapRecord, FloatMapAtStreamStartHas16ByteHeaderAndNoTrailingPad) {
  cv::Mat map(480, 640, CV_32FC1);
  cv::randu(map, -10.0f, 700.0f);
  std::stringstream ss;
  ASSERT_TRUE(save_map(ss, map));
  const std::string file = ss.str();
  ASSERT_EQ(file.size(), 16u + 1228800u);
  EXPECT_EQ(int_at(file, 0), CV_32FC1);
  EXPECT_EQ(int_at(file, 4), 640);  // cols before rows
  EXPECT_EQ(int_at(file, 8), 480);
  EXPECT_EQ(int_at(file, 12), 0);
  EXPECT_EQ(file.substr(16), bytes_of(map));

  cv::Mat back;
  ASSERT_TRUE(load_map(ss, back));
  EXPECT_EQ(back.type(), CV_32FC1);
  EXPECT_EQ(bytes_of(back), bytes_of(map));
}

TEST(MapRecord, OddByteMapIsPaddedAndRecordsFollowEachOther) {
  cv::Mat odd = (cv::Mat_<uchar>(3, 5) << 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  cv::Mat pairs(2, 3, CV_16SC2, cv::Scalar(-3, 1234));
  std::stringstream ss;
  ASSERT_TRUE(save_map(ss, odd));
  ASSERT_TRUE(save_map(ss, pairs));
  const std::string file = ss.str();
  // 16 header + 15 data + 1 pad, then 12 header + 4 pad + 24 data.
  ASSERT_EQ(file.size(), 32u + 40u);
  EXPECT_EQ(file.substr(16, 15), bytes_of(odd));
  EXPECT_EQ(file[31], '\0');
  EXPECT_EQ(int_at(file, 32), CV_16SC2);
  EXPECT_EQ(file.substr(48), bytes_of(pairs));

  cv::Mat a, b;
  ASSERT_TRUE(load_map(ss, a));
  ASSERT_TRUE(load_map(ss, b));
  EXPECT_EQ(a.type(), CV_8UC1);
  EXPECT_EQ(a.size(), cv::Size(5, 3));
  EXPECT_EQ(bytes_of(a), bytes_of(odd));
  EXPECT_EQ(b.type(), CV_16SC2);
  EXPECT_EQ(bytes_of(b), bytes_of(pairs));
}

// Padding follows the absolute position: after a 3-byte prefix the header
// ends at 15 and the data starts at 16, not at 3 + 16.
TEST(MapRecord, PaddingFollowsAbsoluteStreamPosition) {
  cv::Mat m = (cv::Mat_<float>(1, 3) << 1.5f, -2.0f, 3.25f);
  std::stringstream ss;
  ss.write("abc", 3);
  ASSERT_TRUE(save_map(ss, m));
  const std::string s = ss.str();
  ASSERT_EQ(s.size(), 32u);  // 3 + 12 header + 1 pad + 12 data + 4 pad
  EXPECT_EQ(int_at(s, 7), 3);
  EXPECT_EQ(s.substr(16, 12), bytes_of(m));

  ss.seekg(3);
  cv::Mat back;
  ASSERT_TRUE(load_map(ss, back));
  EXPECT_EQ(bytes_of(back), bytes_of(m));

  std::stringstream empty_out;
  cv::Mat empty;
  EXPECT_FALSE(save_map(empty_out, empty));
  EXPECT_TRUE(empty_out.str().empty());
}

// Corrupt headers fail cleanly, before any allocation, and a zero-sized
// header leaves the target matrix alone.
TEST(MapRecord, CorruptHeadersFailWithoutAllocating) {
  cv::Mat target(2, 2, CV_32FC1, cv::Scalar(42));
  const uchar* buffer = target.data;
  const std::string data(64, '\x01');
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"zero cols", header(CV_32FC1, 0, 10) + data},
      {"both negative", header(CV_32FC1, -4, -4) + data},
      {"billions of elements", header(CV_32FC1, 100000, 100000) + data},
      {"overflowing product", header(CV_64FC4, 2147483647, 2147483647) + data},
      {"more than the stream holds", header(CV_32FC1, 4, 5) + std::string(4, '\0') + data},
      {"invalid type", header(1 << 20, 2, 2) + data},
      {"short header", header(CV_32FC1, 2, 2).substr(0, 7)},
  };
  for (const auto& [what, bytes] : cases) {
    std::istringstream is(bytes);
    EXPECT_FALSE(load_map(is, target)) << what;
    EXPECT_EQ(target.data, buffer) << what;
    EXPECT_EQ(target.at<float>(1, 1), 42.0f) << what;
  }
  std::istringstream zero(header(CV_32FC1, 0, 10) + data);
  ASSERT_FALSE(load_map(zero, target));
  EXPECT_EQ(zero.tellg(), 12);
}

// --- pair tables ----------------------------------------------------------

struct Pair {
  UndistortCamera cams[2] = {UndistortCamera(cv::Size(5, 3), "cam0"),
                             UndistortCamera(cv::Size(5, 3), "cam1")};
};

cv::Mat ramp(int rows, int cols, float start, int type) {
  cv::Mat m(rows, cols, CV_32FC1);
  for (int i = 0; i < rows * cols; ++i) m.at<float>(i / cols, i % cols) = start + i;
  cv::Mat converted;
  m.convertTo(converted, type);
  return converted;
}

TEST(RectifyTables, XMapsFirstFloatRecordsAndRoundTrip) {
  Pair pair;
  pair.cams[0].map1 = ramp(3, 5, 100, CV_32FC1);
  pair.cams[1].map1 = ramp(3, 5, 200, CV_64FC1);  // written as float
  // A view with a row stride wider than its row.
  cv::Mat wide = ramp(3, 8, 300, CV_32FC1);
  pair.cams[0].map2 = wide.colRange(1, 6);
  pair.cams[1].map2 = ramp(3, 5, 400, CV_32FC1);
  std::stringstream ss;
  SaveRectifyTables(pair.cams, ss);
  const std::string s = ss.str();
  // Each record: count 4 + pad 4 + 60 data + pad 4 = 72 bytes.
  ASSERT_EQ(s.size(), 4u * 72u);
  const float firsts[4] = {100, 200, 301, 400};
  for (int r = 0; r < 4; ++r) {
    EXPECT_EQ(int_at(s, 72 * r), 15);
    float first, last;
    std::memcpy(&first, s.data() + 72 * r + 8, 4);
    std::memcpy(&last, s.data() + 72 * r + 8 + 56, 4);
    EXPECT_EQ(first, firsts[r]) << r;
    EXPECT_EQ(last, firsts[r] + (r == 2 ? 14 + 6 : 14)) << r;  // stride honoured
  }

  Pair back;
  ASSERT_TRUE(LoadRectifyTables(back.cams, ss));
  for (int c = 0; c < 2; ++c) {
    EXPECT_EQ(back.cams[c].map1.type(), CV_32FC1);
    cv::Mat m1, m2;
    pair.cams[c].map1.convertTo(m1, CV_32F);
    pair.cams[c].map2.convertTo(m2, CV_32F);
    EXPECT_EQ(cv::norm(back.cams[c].map1, m1, cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(back.cams[c].map2, m2, cv::NORM_INF), 0.0);
  }
}

TEST(RectifyTables, MismatchedOrTruncatedTablesStopLoading) {
  Pair pair;
  for (UndistortCamera& cam : pair.cams) {
    cam.map1 = ramp(3, 5, 1, CV_32FC1);
    cam.map2 = ramp(3, 5, 2, CV_32FC1);
  }
  std::stringstream ss;
  SaveRectifyTables(pair.cams, ss);
  const std::string table = ss.str();

  Pair wrong_size;
  wrong_size.cams[1].size = cv::Size(4, 3);
  std::istringstream is(table);
  EXPECT_FALSE(LoadRectifyTables(wrong_size.cams, is));
  EXPECT_EQ(wrong_size.cams[0].map1.size(), cv::Size(5, 3));  // read before the failure
  EXPECT_TRUE(wrong_size.cams[1].map1.empty());
  EXPECT_TRUE(wrong_size.cams[0].map2.empty());

  Pair truncated;
  std::istringstream cut(table.substr(0, table.size() - 20));
  EXPECT_FALSE(LoadRectifyTables(truncated.cams, cut));
  EXPECT_TRUE(truncated.cams[1].map2.empty());

  Pair huge;
  for (UndistortCamera& cam : huge.cams) cam.size = cv::Size(200000, 200000);
  std::istringstream small(table);
  EXPECT_FALSE(LoadRectifyTables(huge.cams, small));

  cv::Mat wrong_type(3, 5, CV_64FC1);
  std::istringstream one(table);
  EXPECT_FALSE(_load_rtable(one, wrong_type));
}

}  // namespace
