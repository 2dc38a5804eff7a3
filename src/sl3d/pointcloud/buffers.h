#ifndef SL3D_POINTCLOUD_BUFFERS_H_
#define SL3D_POINTCLOUD_BUFFERS_H_

// Memory for the generators' large buffers and image planes.
//
// Why not new[] or std::vector: a measurement touches a few hundred
// megabytes once. Blocks from the kernel (anonymous mappings) come zeroed
// without a pass over them, so clearing a plane at init costs nothing until
// it is first written, and large blocks ask for transparent huge pages,
// which cuts the page faults of that first write by a factor of up to 512.

#include <cstddef>
#include <cstdint>

#include <Eigen/Core>

namespace sl3d {
namespace detail {

// An owned block of zeroed memory. Empty after a failed allocation.
class ZeroedBuffer {
 public:
  ZeroedBuffer() = default;
  ZeroedBuffer(ZeroedBuffer&& other) noexcept;
  ZeroedBuffer& operator=(ZeroedBuffer&& other) noexcept;
  ZeroedBuffer(const ZeroedBuffer&) = delete;
  ZeroedBuffer& operator=(const ZeroedBuffer&) = delete;
  ~ZeroedBuffer();

  // `bytes` of zeroed memory, aligned to at least 64 bytes; an empty
  // buffer when the system refuses (or bytes is 0). Never throws.
  static ZeroedBuffer allocate(std::size_t bytes);

  void* data() const { return data_; }
  std::size_t size() const { return size_; }
  bool empty() const { return data_ == nullptr; }

 private:
  void release();

  void* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t mapped_ = 0;  // length of the mapping; 0 for heap blocks
};

// A rows x cols row-major plane of T in memory owned elsewhere (one
// ZeroedBuffer holds all planes of a generator, so that they share huge
// pages).
template <typename T>
class Plane {
 public:
  using Matrix = Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

  void bind(T* data, int rows, int cols) {
    data_ = data;
    rows_ = rows;
    cols_ = cols;
  }

  int rows() const { return rows_; }
  int cols() const { return cols_; }
  std::size_t size() const { return static_cast<std::size_t>(rows_) * cols_; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T* row(int y) { return data_ + static_cast<std::size_t>(y) * cols_; }
  const T* row(int y) const { return data_ + static_cast<std::size_t>(y) * cols_; }

  Eigen::Map<Matrix> map() { return Eigen::Map<Matrix>(data_, rows_, cols_); }
  Eigen::Map<const Matrix> map() const { return Eigen::Map<const Matrix>(data_, rows_, cols_); }

 private:
  T* data_ = nullptr;
  int rows_ = 0;
  int cols_ = 0;
};

// Lays planes out one after the other in a block, each on a 64-byte
// boundary: first counts the bytes (block null), then binds the planes.
class PlaneLayout {
 public:
  explicit PlaneLayout(void* block) : block_(static_cast<unsigned char*>(block)) {}
  template <typename T>
  void place(Plane<T>& plane, int rows, int cols) {
    const std::size_t bytes = sizeof(T) * static_cast<std::size_t>(rows) * cols;
    if (block_ != nullptr) plane.bind(reinterpret_cast<T*>(block_ + used_), rows, cols);
    used_ += (bytes + 63) & ~std::size_t{63};
  }
  std::size_t used() const { return used_; }

 private:
  unsigned char* block_;
  std::size_t used_ = 0;
};

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_POINTCLOUD_BUFFERS_H_
