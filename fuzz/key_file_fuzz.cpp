// Key files: board parameters (detect, calibrate) and method parameters
// (scan --params) through the tool's one reader. The first byte picks the
// kind; a CliError is the only acceptable failure.
#include "../src/sl3d/cli/board_params.h"
#include "../src/sl3d/cli/errors.h"
#include "../src/sl3d/cli/params.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::string path = sl3d_fuzz::write_scratch("params.yaml", data + 1, size - 1);
  try {
    if (data[0] % 3 == 0) {
      sl3d::read_board_params(path);
    } else {
      sl3d::MethodParams params;
      sl3d::load_params_file(path, data[0] % 3 == 1 ? sl3d::Method::kPhaseShift : sl3d::Method::kSgbm,
                             params);
    }
  } catch (const sl3d::CliError&) {
  }
  return 0;
}
