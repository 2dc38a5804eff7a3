#ifndef SL3D_PSFT_PHASE_TABLE_H_
#define SL3D_PSFT_PHASE_TABLE_H_

// The wrapped phase of a row: atan2(I3 - I1, I2 - I0) of four fringe rows.

#include <cstdint>

namespace sl3d {
namespace detail {

// Builds the arctangent table (once per process; later calls return at
// once). Thread-safe.
void prepare_phase_table();

// phase[x] = atan2(double(i3[x]) - i1[x], double(i2[x]) - i0[x]) for x in
// [0, width): bit for bit the value of std::atan2.
void wrapped_phase_row(const std::uint8_t* i0, const std::uint8_t* i1, const std::uint8_t* i2,
                       const std::uint8_t* i3, int width, double* phase);

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_PSFT_PHASE_TABLE_H_
