#include <sl3d/calibboard/PelluxCalibBoardRecognizer.h>

#include <algorithm>
#include <cfloat>
#include <new>

#include <opencv2/imgproc.hpp>

using sl3d::detail::unit_vector;

std::map<int, std::string> PelluxCalibBoardRecognizer::errors{
    {0, "Success"},
    {1, "ImageSize_Changed"},
    {2, "Few_Contours"},
    {3, "BaseMarker_NotFound"},
    {4, "N_BaseMarker_NotMatch"},
    {5, "BaseMarker_ClassifyFailure"},
};

extern "C" iCalibBoardRecognizer* CreateCalibBoardRecognizer() {
  return new (std::nothrow) PelluxCalibBoardRecognizer();
}

PelluxCalibBoardRecognizer::~PelluxCalibBoardRecognizer() = default;

void PelluxCalibBoardRecognizer::destroy() { delete this; }

std::string PelluxCalibBoardRecognizer::get_error_name(int code) { return errors[code]; }

int PelluxCalibBoardRecognizer::basemarker_process(int marker, int inner,
                                                   std::vector<int>& flags) {
  return mark_ring(marker, inner, flags);
}

bool PelluxCalibBoardRecognizer::is_X_marker(int b) {
  for (int slot = 0; slot < 4; ++slot) {
    const int n = connections[std::size_t(b)][slot];
    if (n == -1) continue;
    if (std::find(base_markers.begin(), base_markers.end(), n) != base_markers.end())
      return false;
  }
  return true;
}

int PelluxCalibBoardRecognizer::search_mid_marker() {
  std::vector<int> count(ellipses.size(), 0);
  for (int b : base_markers)
    for (int slot = 0; slot < 4; ++slot) {
      const int n = connections[std::size_t(b)][slot];
      if (n != -1) ++count[std::size_t(n)];
    }
  for (std::size_t e = 0; e < count.size(); ++e)
    if (count[e] == 2) return static_cast<int>(e);
  return -1;
}

bool PelluxCalibBoardRecognizer::is_O_marker(int b, int mid) {
  for (int slot = 0; slot < 4; ++slot)
    if (connections[std::size_t(b)][slot] == mid) return true;
  return false;
}

bool PelluxCalibBoardRecognizer::is_Y_marker(int o, int x, int y) {
  const cv::Point2d centre = ellipses[std::size_t(o)].center;
  dir_x = unit_vector(centre, ellipses[std::size_t(x)].center);
  dir_y = unit_vector(centre, ellipses[std::size_t(y)].center);
  return dir_x.x * dir_y.y - dir_x.y * dir_y.x < 0;
}

bool PelluxCalibBoardRecognizer::init_numbering(int& o, int& x, int& y) {
  x = -1;
  std::vector<int> others;
  for (std::size_t k = 0; k < 3 && k < base_markers.size(); ++k) {
    const int b = base_markers[k];
    if (is_X_marker(b))
      x = b;
    else
      others.push_back(b);
  }
  if (others.size() != 2) return false;
  const int mid = search_mid_marker();
  if (mid == -1) return false;
  o = -1;
  std::vector<int> rest;
  for (int b : others) {
    if (is_O_marker(b, mid))
      o = b;
    else
      rest.push_back(b);
  }
  // Neither candidate touching the middle marker leaves no origin.
  if (o == -1 || rest.empty()) return false;
  y = rest.front();
  return is_Y_marker(o, x, y);
}

int PelluxCalibBoardRecognizer::recognize(cv::Mat& image, std::vector<cv::Point2f>& points) {
  if (!accept_image_size(image)) return 1;
  cv::Mat binary = preprocess(image);
  debug_show(binary, "debug", false);
  if (!search(binary)) return 2;
  if (!find()) return 3;
  if (base_markers.size() != 3) return 4;
  int o = -1, x = -1, y = -1;
  if (!init_numbering(o, x, y)) return 5;
  if (debug_show_scale != 0.0) debug_show_base_markers(image, o, x, y);

  points.assign(std::size_t(n_markers), cv::Point2f(FLT_MAX, FLT_MAX));
  std::vector<int> owner(std::size_t(n_markers), -1);
  numbering(o, board.origin_x * board.n_circles_y + board.origin_y, points, owner);
  make_dbgimg(image, owner);
  debug_show(result_image, "debug", false);
  return 0;
}

void PelluxCalibBoardRecognizer::debug_show_base_markers(cv::Mat& image, int o, int x, int y) {
  cv::Mat picture;
  cv::cvtColor(image, picture, cv::COLOR_GRAY2BGR);
  const struct {
    int marker;
    const char* label;
    cv::Scalar colour;
  } rings[] = {{o, "O", cv::Scalar(0, 0, 255)},
               {x, "X", cv::Scalar(0, 255, 0)},
               {y, "Y", cv::Scalar(255, 0, 0)}};
  for (const auto& r : rings) {
    const RotatedEllipse& e = ellipses[std::size_t(r.marker)];
    cv::ellipse(picture,
                cv::RotatedRect(cv::Point2f(e.center), cv::Size2f(e.width, e.height), e.angle),
                r.colour, 2, 8);
    const cv::Point beside(int(e.center.x + e.a), int(e.center.y - e.b));
    cv::putText(picture, r.label, beside, cv::FONT_HERSHEY_PLAIN, 2.0, r.colour, 2, 8);
  }
  debug_show(picture, "debug", false);
}
