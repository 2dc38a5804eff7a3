#include <sl3d/pointcloud/buffers.h>

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace sl3d {
namespace detail {

namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;
// Below this a block comes from calloc, which reuses the heap.
constexpr std::size_t kMapThreshold = std::size_t{256} << 10;

// A mapping of at least `bytes`, starting on a huge-page boundary when it
// is large enough to hold one, so that the kernel can back it with huge
// pages from the first touch. Returns the start and sets the mapped length.
void* map_zeroed(std::size_t bytes, std::size_t& mapped) {
  const bool huge = bytes >= kHugePage;
  const std::size_t length = huge ? bytes + kHugePage : bytes;
  void* raw = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  if (!huge) {
    mapped = length;
    return raw;
  }
  // Trim the mapping to a huge-page aligned start; the tail keeps whole
  // 4 KiB pages.
  const auto start = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = (start + kHugePage - 1) & ~(kHugePage - 1);
  const std::size_t head = aligned - start;
  const std::size_t page = 4096;
  const std::size_t keep = (bytes + page - 1) & ~(page - 1);
  if (head > 0) ::munmap(raw, head);
  if (length - head > keep) ::munmap(reinterpret_cast<void*>(aligned + keep), length - head - keep);
  void* block = reinterpret_cast<void*>(aligned);
#ifdef MADV_HUGEPAGE
  ::madvise(block, keep, MADV_HUGEPAGE);  // advice only: failure is harmless
#endif
  mapped = keep;
  return block;
}

}  // namespace

ZeroedBuffer::ZeroedBuffer(ZeroedBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapped_(std::exchange(other.mapped_, 0)) {}

ZeroedBuffer& ZeroedBuffer::operator=(ZeroedBuffer&& other) noexcept {
  if (this != &other) {
    release();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    mapped_ = std::exchange(other.mapped_, 0);
  }
  return *this;
}

ZeroedBuffer::~ZeroedBuffer() { release(); }

void ZeroedBuffer::release() {
  if (data_ == nullptr) return;
  if (mapped_ != 0) {
    ::munmap(data_, mapped_);
  } else {
    std::free(data_);
  }
  data_ = nullptr;
  size_ = mapped_ = 0;
}

ZeroedBuffer ZeroedBuffer::allocate(std::size_t bytes) {
  ZeroedBuffer buffer;
  if (bytes == 0) return buffer;
  if (bytes >= kMapThreshold) {
    buffer.data_ = map_zeroed(bytes, buffer.mapped_);
  } else {
    // 64-byte alignment for vector loads; aligned_alloc wants a multiple.
    const std::size_t rounded = (bytes + 63) & ~std::size_t{63};
    buffer.data_ = std::aligned_alloc(64, rounded);
    if (buffer.data_ != nullptr) std::memset(buffer.data_, 0, rounded);
  }
  if (buffer.data_ != nullptr) buffer.size_ = bytes;
  return buffer;
}

}  // namespace detail
}  // namespace sl3d
