// Q files (`sl3d scan --q`) through the tool's reader: a CliError naming
// the file is the only acceptable failure.
#include "../src/sl3d/cli/errors.h"
#include "../src/sl3d/cli/io.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string path = sl3d_fuzz::write_scratch("q.yaml", data, size);
  try {
    sl3d::read_q_matrix(path);
  } catch (const sl3d::CliError&) {
  }
  return 0;
}
