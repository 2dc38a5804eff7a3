#include "sl3d/camera/rectify_map_io.h"

#include <cstdint>

#include "sl3d/camera/camera_undistort.h"

namespace {

constexpr std::int64_t kAlignment = 8;

std::int64_t padding_after(std::int64_t position) {
  std::int64_t rest = position % kAlignment;
  return rest == 0 ? 0 : kAlignment - rest;
}

// Bytes between the read position and the end of the stream; -1 when the
// stream cannot tell (failed or not seekable).
std::int64_t bytes_left(std::istream& is) {
  std::streampos here = is.tellg();
  if (here < 0) return -1;
  is.seekg(0, std::ios::end);
  std::streampos end = is.tellg();
  is.seekg(here);
  if (end < 0 || !is) return -1;
  return static_cast<std::int64_t>(end - here);
}

// True when `count` elements of `element_size` bytes fit in what is left.
bool stream_holds(std::istream& is, std::int64_t count, std::int64_t element_size) {
  std::int64_t left = bytes_left(is);
  return left >= 0 && count <= left / element_size;
}

cv::Mat as_float(const cv::Mat& m) {
  if (m.depth() == CV_32F) return m;
  cv::Mat converted;
  m.convertTo(converted, CV_32F, 1.0, 0.0);
  return converted;
}

}  // namespace

void alignment_padding_offset(std::ostream& os) {
  static const char zeros[kAlignment] = {};
  std::streampos position = os.tellp();
  if (position < 0) return;
  os.write(zeros, padding_after(position));
}

void alignment_padding_offset(std::istream& is) {
  std::streampos position = is.tellg();
  if (position < 0) return;
  is.ignore(padding_after(position));
}

bool save_map(std::ostream& os, cv::Mat& m) {
  if (!m.data || m.dims != 2 || m.total() == 0) return false;
  cv::Mat block = m.isContinuous() ? m : m.clone();
  save_element<int>(os, block.type());
  save_element<int>(os, block.cols);
  save_element<int>(os, block.rows);
  alignment_padding_offset(os);
  os.write(reinterpret_cast<const char*>(block.data),
           static_cast<std::streamsize>(block.total() * block.elemSize()));
  alignment_padding_offset(os);
  return !os.fail();
}

bool load_map(std::istream& is, cv::Mat& m) {
  int type = 0, cols = 0, rows = 0;
  load_element<int>(is, type);
  load_element<int>(is, cols);
  load_element<int>(is, rows);
  if (is.fail()) return false;
  // Two negative sizes multiply to a positive count; reject each on its own.
  if (cols < 1 || rows < 1) return false;
  if (type < 0 || type > CV_MAT_TYPE_MASK) return false;
  alignment_padding_offset(is);
  const std::int64_t count = static_cast<std::int64_t>(rows) * cols;
  const std::int64_t element_size = CV_ELEM_SIZE(type);
  if (!stream_holds(is, count, element_size)) return false;
  m.release();
  m.create(rows, cols, type);
  is.read(reinterpret_cast<char*>(m.data), static_cast<std::streamsize>(count * element_size));
  alignment_padding_offset(is);
  return !is.fail();
}

void _save_rtable(std::ostream& os, cv::Mat& m) {
  cv::Mat table = as_float(m);
  save_element<int>(os, table.rows * table.cols);
  alignment_padding_offset(os);
  const std::streamsize row_bytes = static_cast<std::streamsize>(table.cols) * 4;
  for (int r = 0; r < table.rows; ++r) os.write(table.ptr<char>(r), row_bytes);
  alignment_padding_offset(os);
}

bool _load_rtable(std::istream& is, cv::Mat& m) {
  int count = 0;
  load_element<int>(is, count);
  if (is.fail()) return false;
  if (static_cast<std::int64_t>(count) != static_cast<std::int64_t>(m.rows) * m.cols) return false;
  if (m.type() != CV_32FC1) return false;  // rows are read as cols * 4 bytes
  alignment_padding_offset(is);
  if (!stream_holds(is, count, 4)) return false;
  const std::streamsize row_bytes = static_cast<std::streamsize>(m.cols) * 4;
  for (int r = 0; r < m.rows; ++r) is.read(m.ptr<char>(r), row_bytes);
  alignment_padding_offset(is);
  return !is.fail();
}

namespace {

// The table order: all x maps first, then all y maps.
cv::Mat& table_map(UndistortCamera* cams, int index) {
  UndistortCamera& cam = cams[index % 2];
  return index < 2 ? cam.map1 : cam.map2;
}

}  // namespace

void SaveRectifyTables(UndistortCamera* cams, std::ostream& os) {
  for (int i = 0; i < 4; ++i) _save_rtable(os, table_map(cams, i));
}

bool LoadRectifyTables(UndistortCamera* cams, std::istream& is) {
  for (int i = 0; i < 4; ++i) {
    const cv::Size size = cams[i % 2].size;
    if (size.width < 0 || size.height < 0) return false;
    // Allocate only what the stream can still fill (count field + data).
    const std::int64_t count = static_cast<std::int64_t>(size.width) * size.height;
    if (!stream_holds(is, count + 1, 4)) return false;
    cv::Mat table(size.height, size.width, CV_32FC1);
    if (!_load_rtable(is, table)) return false;
    table_map(cams, i) = table;
  }
  return true;
}
