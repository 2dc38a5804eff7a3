#include <sl3d/calibboard/ConnectionFinder.h>

#include <algorithm>
#include <cfloat>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace {

constexpr int kSlots = 4;

// Distance ratio in truncated tenths; ratios are positive, so floor is the
// truncation, and it stays in double where an int cast could overflow.
double tenths(double distance, double diameter) {
  return std::floor(distance * 10.0 / diameter);
}

}  // namespace

UnionFind::UnionFind(int n) : parent(std::size_t(std::max(0, n)), -1) {}

int UnionFind::root(int i) {
  int r = i;
  while (parent[r] >= 0) r = parent[r];
  while (parent[i] >= 0) {
    const int next = parent[i];
    parent[i] = r;
    i = next;
  }
  return r;
}

void UnionFind::unite(int i, int j) {
  int ri = root(i), rj = root(j);
  if (ri == rj) return;
  if (size_of_root(rj) > size_of_root(ri)) std::swap(ri, rj);
  parent[ri] += parent[rj];
  parent[rj] = ri;
}

// Out of line so that the vtable and type info live in the library.
ConnectionFinder::~ConnectionFinder() = default;

bool ConnectionFinder::find() {
  cv::Mat_<double> D = get_distance_matrix();
  check_distance_matrix(D);
  std::vector<int> flags(ellipses.size(), 1);
  remain_largest_group(flags, D);
  base_markers.clear();
  const bool found = search_base_marker(flags, D);
  if (!found) return false;
  remove_inlier(flags, D);
  connections = find_connected(flags, D);
  if (debug_show_scale != 0.0) debug_show_connections(flags);
  return found;
}

cv::Mat_<double> ConnectionFinder::get_distance_matrix() {
  const int n = static_cast<int>(ellipses.size());
  cv::Mat_<double> D(n, n);
  for (int i = 0; i < n; ++i) {
    D(i, i) = DBL_MAX;
    for (int j = i + 1; j < n; ++j)
      D(i, j) = D(j, i) = cv::norm(ellipses[j].center - ellipses[i].center);
  }
  return D;
}

void ConnectionFinder::check_distance_matrix(cv::Mat_<double>& D) {
  const double limit = std::floor((0.1 + distance_between_circles) * 10.0);
  for (int i = 0; i < D.rows; ++i) {
    RotatedEllipse& e = ellipses[i];
    const double diameter = std::max(e.width, e.height);
    for (int j = 0; j < D.cols; ++j) {
      if (D(i, j) == DBL_MAX) continue;
      if (tenths(D(i, j), diameter) > limit) {
        D(i, j) = DBL_MAX;
        continue;
      }
      const cv::Point2d d = ellipses[j].center - e.center;
      const double directional = 2.0 * e.getRadius(cv::Vec2d(d.x, d.y));
      if (tenths(cv::norm(d), directional) > limit) D(i, j) = DBL_MAX;
    }
  }
}

void ConnectionFinder::remain_largest_group(std::vector<int>& flags, cv::Mat_<double>& D) {
  const int n = D.rows;
  UnionFind sets(n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      if (D(i, j) != DBL_MAX) sets.unite(i, j);

  int largest = -1;
  for (int i = 0; i < n; ++i)
    if (sets.is_root(i) && (largest < 0 || sets.size_of_root(i) > sets.size_of_root(largest)))
      largest = i;

  for (int i = 0; i < n; ++i) {
    if (sets.root(i) == largest) continue;
    flags[i] = 0;
    D.row(i).setTo(DBL_MAX);
  }
}

bool ConnectionFinder::search_base_marker(std::vector<int>& flags, cv::Mat_<double>& D) {
  if (D.rows == 0) return false;
  bool appended = false;
  for (int i = 0; i < D.rows; ++i) {
    if (flags[i] != 1) continue;
    const RotatedEllipse& e = ellipses[i];
    const double r =
        std::min(static_cast<float>(e.width), static_cast<float>(e.height)) * 0.5;
    int nested = -1;
    for (int j = 0; j < D.cols; ++j) {
      if (j == i || D(i, j) == DBL_MAX || !(D(i, j) < r)) continue;
      if (nested < 0 || D(i, j) < D(i, nested)) nested = j;
    }
    if (nested < 0) continue;
    base_markers.push_back(basemarker_process(i, nested, flags));
    appended = true;
  }
  return appended;
}

size_t ConnectionFinder::get_median_contour_length(std::vector<int>& flags) {
  std::vector<size_t> lengths;
  for (size_t i = 0; i < flags.size(); ++i)
    if (flags[i] != 0) lengths.push_back(contours[i].size());
  if (lengths.empty()) return 0;
  const auto middle = lengths.begin() + lengths.size() / 2;
  std::nth_element(lengths.begin(), middle, lengths.end());
  return *middle;
}

void ConnectionFinder::remove_inlier(std::vector<int>& flags, cv::Mat_<double>& /*D*/) {
  const size_t median = get_median_contour_length(flags);
  for (size_t i = 0; i < flags.size(); ++i) {
    if (flags[i] != 1) continue;
    const size_t n = contours[i].size();
    if (n <= (median + 2) / 4 || n >= 4 * median) flags[i] = 0;
  }
}

std::vector<cv::Vec4i> ConnectionFinder::find_connected(std::vector<int>& flags,
                                                        cv::Mat_<double>& D) {
  const int n = D.rows;
  std::vector<cv::Vec4i> result(std::size_t(n), cv::Vec4i(0, 0, 0, 0));
  for (int i = 0; i < n; ++i) {
    if (flags[i] == 0) continue;
    double dist[kSlots] = {DBL_MAX, DBL_MAX, DBL_MAX, DBL_MAX};
    int index[kSlots] = {-1, -1, -1, -1};
    for (int j = 0; j < n; ++j) {
      if (j == i || flags[j] == 0 || D(i, j) == DBL_MAX) continue;
      int slot = 0;
      while (slot < kSlots && !(dist[slot] > D(i, j))) ++slot;
      if (slot == kSlots) continue;
      for (int k = kSlots - 1; k > slot; --k) {
        dist[k] = dist[k - 1];
        index[k] = index[k - 1];
      }
      dist[slot] = D(i, j);
      index[slot] = j;
    }
    result[i] = cv::Vec4i(index[0], index[1], index[2], index[3]);
  }
  return result;
}

void ConnectionFinder::debug_show_connections(const std::vector<int>& flags) {
  cv::Mat picture = cv::Mat::zeros(image_height, image_width, CV_8UC3);
  for (size_t i = 0; i < ellipses.size(); ++i) {
    if (flags[i] == 0) continue;
    const RotatedEllipse& e = ellipses[i];
    const cv::Scalar colour = flags[i] == 2 ? cv::Scalar(0, 0, 255) : cv::Scalar(0, 255, 0);
    cv::ellipse(picture,
                cv::RotatedRect(cv::Point2f(e.center), cv::Size2f(e.width, e.height), e.angle),
                colour, 1, 8);
    for (int k = 0; k < kSlots; ++k) {
      const int j = connections[i][k];
      if (j >= 0) cv::line(picture, e.center, ellipses[j].center, cv::Scalar(255, 191, 0), 1, 8);
    }
  }
  debug_show(picture, "debug", false);
}
