// Captures and board images: the tool's PNG intake. A CliError naming the
// file is the only acceptable failure.
#include "../src/sl3d/cli/errors.h"
#include "../src/sl3d/cli/io.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string path = sl3d_fuzz::write_scratch("image.png", data, size);
  try {
    sl3d::read_grey_png(path);
  } catch (const sl3d::CliError&) {
  }
  return 0;
}
