#ifndef SL3D_FUZZ_FUZZ_UTIL_H_
#define SL3D_FUZZ_FUZZ_UTIL_H_

// Shared by the fuzz targets: a private scratch directory per process and
// writing an input to a file there, for the loaders that take paths.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace sl3d_fuzz {

namespace fs = std::filesystem;

inline const fs::path& scratch() {
  static const fs::path dir = [] {
    const fs::path d = fs::temp_directory_path() / ("sl3d_fuzz_" + std::to_string(::getpid()));
    fs::create_directories(d);
    std::atexit([] {
      std::error_code ec;
      fs::remove_all(scratch(), ec);
    });
    return d;
  }();
  return dir;
}

inline std::string write_file(const fs::path& path, const uint8_t* data, std::size_t size) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  return path.string();
}

// The input as the file `name` of the scratch directory.
inline std::string write_scratch(const char* name, const uint8_t* data, std::size_t size) {
  return write_file(scratch() / name, data, size);
}

// A calibration directory of the virtual sensor's cameras at a small image
// size, written once per process by the project's own writer.
const std::string& good_calibration();
constexpr int kCalibWidth = 64;
constexpr int kCalibHeight = 48;

}  // namespace sl3d_fuzz

#endif  // SL3D_FUZZ_FUZZ_UTIL_H_
