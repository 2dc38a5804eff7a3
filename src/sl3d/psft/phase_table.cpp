#include <sl3d/psft/phase_table.h>

#include <cmath>
#include <vector>

namespace sl3d {
namespace detail {

namespace {

// The fringes are bytes, so both arguments of the phase's atan2 are integers
// in [-255, 255]: one table of the exact results replaces millions of atan2
// calls.
constexpr int kSpan = 511;

const std::vector<double>& table() {
  static const std::vector<double> values = [] {
    std::vector<double> v(static_cast<std::size_t>(kSpan) * kSpan);
    for (int dy = -255; dy <= 255; ++dy)
      for (int dx = -255; dx <= 255; ++dx)
        v[static_cast<std::size_t>(dy + 255) * kSpan + (dx + 255)] = std::atan2(double(dy), double(dx));
    return v;
  }();
  return values;
}

}  // namespace

void prepare_phase_table() { table(); }

void wrapped_phase_row(const std::uint8_t* i0, const std::uint8_t* i1, const std::uint8_t* i2,
                       const std::uint8_t* i3, int width, double* phase) {
  const double* __restrict t = table().data() + 255 * kSpan + 255;
  const std::uint8_t* __restrict a = i0;
  const std::uint8_t* __restrict b = i1;
  const std::uint8_t* __restrict c = i2;
  const std::uint8_t* __restrict d = i3;
  double* __restrict out = phase;
  for (int x = 0; x < width; ++x) {
    const int dy = int(d[x]) - int(b[x]);
    const int dx = int(c[x]) - int(a[x]);
    out[x] = t[dy * kSpan + dx];
  }
}

}  // namespace detail
}  // namespace sl3d
