// Reading the recognizer's parameter records from key maps: which fields a
// key reaches, truncation of int fields and the fields that
// have no key.

#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include <sl3d/calibboard/calib_board_params.h>

namespace {

using KeyMap = std::map<std::string, double>;

template <typename Record>
bool same_bytes(const Record& x, const Record& y) {
  return std::memcmp(&x, &y, sizeof(Record)) == 0;
}

TEST(CalibBoardParams, EmptyOrForeignKeysChangeNothing) {
  KeyMap none;
  KeyMap foreign{{"unknown", 3.0}, {"N_CIRCLES_X", 4.0}, {"bin_type ", 2.0}};
  for (KeyMap* keys : {&none, &foreign}) {
    PreProcParams pre;
    CircleMarkerParams marker;
    CalibBoardParams board;
    const PreProcParams pre0 = pre;
    const CircleMarkerParams marker0 = marker;
    const CalibBoardParams board0 = board;
    pre.set(*keys);
    marker.set(*keys);
    board.set(*keys);
    EXPECT_TRUE(same_bytes(pre, pre0));
    EXPECT_TRUE(same_bytes(marker, marker0));
    EXPECT_TRUE(same_bytes(board, board0));
  }
}

TEST(CalibBoardParams, IntFieldsTruncateTowardZero) {
  CalibBoardParams board;
  KeyMap keys{{"n_circles_x", 7.9}, {"n_circles_y", -0.5}, {"origin_x", -2.7},
              {"origin_y", 3.0}, {"unit_length", 2.5}, {"distance_between_circles", 1.45}};
  board.set(keys);
  EXPECT_EQ(board.n_circles_x, 7);
  EXPECT_EQ(board.n_circles_y, 0);
  EXPECT_EQ(board.origin_x, -2);
  EXPECT_EQ(board.origin_y, 3);
  EXPECT_EQ(board.unit_length, 2.5);  // doubles are taken unchanged
  EXPECT_EQ(board.distance_between_circles, 1.45);

  PreProcParams pre;
  KeyMap pre_keys{{"bin_type", 2.99}, {"bin_param0", 11.5}, {"bin_param1", -3.9},
                  {"gamma_correction", 0.45}};
  pre.set(pre_keys);
  EXPECT_EQ(pre.bin_type, 2);
  EXPECT_EQ(pre.bin_param0, 11);
  EXPECT_EQ(pre.bin_param1, -3);
  EXPECT_EQ(pre.gamma_correction, 0.45);
}

TEST(CalibBoardParams, MarkerKeysLeaveTheImageSizeWordsAlone) {
  CircleMarkerParams marker;
  marker.image_width = 640;
  marker.image_height = 480;
  KeyMap keys{{"fitscore", 0.75}, {"n_minimum", 12.6}, {"max_radius", 90.0},
              {"min_radius", -4.0}, {"debug_show_scale", 0.5},
              {"image_width", 1.0}, {"width", 1.0}};
  marker.set(keys);
  EXPECT_EQ(marker.fitscore, 0.75);
  EXPECT_EQ(marker.n_minimum, 12);
  EXPECT_EQ(marker.max_radius, 90.0);
  EXPECT_EQ(marker.min_radius, -4.0);  // no range check here
  EXPECT_EQ(marker.debug_show_scale, 0.5);
  EXPECT_EQ(marker.image_width, 640);
  EXPECT_EQ(marker.image_height, 480);
}

}  // namespace
