#ifndef SL3D_CLI_SCAN_EXPORTS_H_
#define SL3D_CLI_SCAN_EXPORTS_H_

// What `sl3d scan` writes besides the PLY file: a depth preview PNG and
// depth and point images as 32-bit float TIFF, all on camera 0's pixel grid
// (the range grid's).

#include <optional>
#include <string>
#include <vector>

#include "args.h"
#include "depth.h"
#include "io.h"
#include "measure.h"

namespace sl3d {

struct ScanExports {
  std::string depth_png;   // empty: not written
  std::string depth_tiff;
  std::string xyz_tiff;
  std::optional<DepthRange> depth_range;  // none: the preview's percentiles

  std::vector<std::string> paths() const;
};

// The options: --depth-png, --depth-tiff, --xyz-tiff and --depth-range.
std::vector<OptionDef> scan_export_options();

// Reads them; an empty path, a malformed or empty range, a range without a
// preview, or two outputs (the PLY included) naming one file are usage
// errors of `command`.
ScanExports parse_scan_exports(const std::string& command, const ParsedArgs& parsed,
                               const std::string& ply_file);

// Adds the requested files, filled, to `outputs` (to be committed with the
// PLY).
void add_scan_exports(const ScanExports& exports, const Measurement& m,
                      std::vector<PendingFile>& outputs);

}  // namespace sl3d

#endif  // SL3D_CLI_SCAN_EXPORTS_H_
