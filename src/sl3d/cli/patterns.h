#ifndef SL3D_CLI_PATTERNS_H_
#define SL3D_CLI_PATTERNS_H_

// `sl3d patterns`: the projector frames of a phase-shift capture, and a
// check of captured frames before scanning.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include <sl3d/patterns/phase_shift_patterns.h>

namespace sl3d {

// Writes DIR/pattern_00.png .. pattern_12.png and DIR/patterns.yaml for
// `layout` (DIR is created when missing), all or nothing.
void write_phase_shift_patterns(const std::string& dir, const PhaseShiftPatternLayout& layout);

// The 13 frames as written in DIR, read back (8-bit grey PNGs of one size).
std::vector<cv::Mat> read_phase_shift_patterns(const std::string& dir);

// `sl3d patterns --check DIR [--params FILE]`: exposure report of captures.
int check_phase_shift_captures(const std::string& dir, const std::string& params_file);

}  // namespace sl3d

#endif  // SL3D_CLI_PATTERNS_H_
