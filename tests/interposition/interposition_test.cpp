// A program that defines functions with the names of library functions (an
// internal class's and an exported class's) and exports them, as a program
// linked with -rdynamic does. Board recognition must still run entirely on
// the library's own code.

#include <dlfcn.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <sl3d/calibboard/CalibBoardRecognizer.h>
#include <sl3d/sim/board_families.h>
#include <sl3d/sim/board_renderer.h>

// Non-zero pixels of the application's own PreProcessor::binarize(image)
// (application_preprocessor.cpp).
int application_binarize_nonzero(cv::Mat& image);

namespace {

// Where the dynamic linker resolves `symbol` for everyone who looks it up.
std::string defining_object(const char* symbol) {
  void* address = dlsym(RTLD_DEFAULT, symbol);
  Dl_info info{};
  if (address == nullptr || dladdr(address, &info) == 0 || info.dli_fname == nullptr) return "";
  return info.dli_fname;
}

TEST(Interposition, ProgramExportsItsOwnDefinitions) {
  cv::Mat grey(16, 16, CV_8UC1, cv::Scalar(200));
  EXPECT_EQ(application_binarize_nonzero(grey), 0);
  // Both names resolve to this program, not to libsl3d.so: a library that
  // looked them up dynamically would be handed the program's versions.
  for (const char* symbol : {"_ZN12PreProcessor8binarizeERN2cv3MatE",
                             "_ZN20CalibBoardRecognizer17accept_image_sizeERKN2cv3MatE"}) {
    const std::string object = defining_object(symbol);
    EXPECT_NE(object, "") << symbol;
    EXPECT_EQ(object.find("libsl3d"), std::string::npos) << symbol << " from " << object;
  }
}

TEST(Interposition, RecognitionUsesTheLibrarysOwnCode) {
  const sl3d::BoardCamera camera;
  const sl3d::SynthBoard board =
      sl3d::synth_board(sl3d::BoardFamily::kPellux,
                        sl3d::min_radius_for(sl3d::BoardGrid::detection(), camera.fx, 330.0));
  const sl3d::ViewAngles& view = sl3d::board_views(sl3d::BoardFamily::kPellux)[0];
  const sl3d::BoardRendering rendering = sl3d::render_board(
      board.layout,
      sl3d::board_pose_facing(board.layout, 330.0, view.tilt_x, view.tilt_y, view.roll), camera);

  iCalibBoardRecognizer* recognizer = CreateCalibBoardRecognizer();
  ASSERT_NE(recognizer, nullptr);
  PreProcParams pre = board.pre;
  CircleMarkerParams marker = board.marker;
  CalibBoardParams params = board.board;
  ASSERT_TRUE(recognizer->set_parameters(pre, marker, params));
  cv::Mat image = rendering.image.clone();
  std::vector<cv::Point2f> points;
  // The program's binarize would find no circles; its accept_image_size
  // would refuse every image.
  const int code = recognizer->recognize(image, points);
  EXPECT_EQ(code, 0) << recognizer->get_error_name(code);
  recognizer->destroy();
}

}  // namespace
