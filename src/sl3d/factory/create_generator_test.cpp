// The factory and the lifecycle contract shared by both generators: what
// each kind is, what exists before and after init, and init's refusal of
// sizes whose buffers cannot be sized.

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <new>

#include <sl3d/pointcloud/PointCloudGenerator.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>

namespace {

struct Destroy {
  void operator()(iPointCloudGenerator* g) const { g->destroy(); }
};
using GeneratorPtr = std::unique_ptr<PointCloudGenerator, Destroy>;

GeneratorPtr make(int kind) {
  return GeneratorPtr(dynamic_cast<PointCloudGenerator*>(createPointCloudGenerator(kind)));
}

TEST(Factory, KindOneIsBlockMatchingEverythingElsePhaseShift) {
  for (int kind : {1, 0, 2, -1}) {
    GeneratorPtr gen = make(kind);
    ASSERT_NE(gen, nullptr) << kind;
    EXPECT_EQ(dynamic_cast<SGBMaching*>(gen.get()) != nullptr, kind == 1) << kind;
    EXPECT_EQ(dynamic_cast<PhaseShift*>(gen.get()) != nullptr, kind != 1) << kind;
    EXPECT_EQ(gen->verbose, 1) << kind;

    // Nothing is allocated before init.
    EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
    EXPECT_EQ(gen->get_pointcloud_ptr(), nullptr);
    EXPECT_EQ(gen->get_rangegrid(), nullptr);
    EXPECT_EQ(gen->get_disparity_ptr(), nullptr);
    EXPECT_EQ(gen->get_q_matrix(), nullptr);
    EXPECT_EQ(gen->width(), 0);

    // After init the grid is empty (-1) even before any genPC.
    ASSERT_TRUE(gen->init(6, 4));
    EXPECT_EQ(gen->get_pointcloud_cnt(), 0);
    EXPECT_NE(gen->get_pointcloud_ptr(), nullptr);
    EXPECT_NE(gen->get_disparity_ptr(), nullptr);
    ASSERT_NE(gen->get_rangegrid(), nullptr);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(gen->get_rangegrid()[i], -1) << kind;
    EXPECT_EQ(gen->width(), 6);
    EXPECT_EQ(gen->height(), 4);
  }
}

TEST(Init, SizesWithoutARepresentableByteCountRaiseBeforeAnyEffect) {
  const double q[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  struct Size {
    int width, height;
  };
  for (int kind : {0, 1}) {
    GeneratorPtr gen = make(kind);
    ASSERT_TRUE(gen->init(8, 8));
    ASSERT_TRUE(gen->set_camera_params(q));
    const int* grid = gen->get_rangegrid();
    for (Size s : {Size{-1, 8}, Size{8, -8}, Size{INT_MIN, INT_MIN}, Size{65537, 65537},
                   Size{65536, 65536}, Size{INT_MAX, 2}}) {
      EXPECT_THROW(gen->init(s.width, s.height), std::bad_array_new_length)
          << kind << ": " << s.width << "x" << s.height;
      // The generator is as it was: size, buffers and calibration.
      EXPECT_EQ(gen->width(), 8);
      EXPECT_EQ(gen->get_rangegrid(), grid);
      EXPECT_NE(gen->get_q_matrix(), nullptr);
    }
    // Empty images are a size like any other.
    EXPECT_TRUE(gen->init(0, 5)) << kind;
  }
}

}  // namespace
