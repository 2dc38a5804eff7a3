#include <unistd.h>

#include <cstdio>

#include "commands.h"
#include "params.h"

namespace sl3d {

namespace {

const char kGeneral[] =
    "usage: sl3d <command> [options]\n"
    "\n"
    "Commands:\n"
    "  scan    measure a directory of captures and write a PLY point cloud\n"
    "  synth   render a test capture set with the virtual sensor\n"
    "  demo    render, measure with both methods and compare with the truth\n"
    "  help    show this text; 'sl3d <command> --help' shows a command's\n"
    "\n"
    "Exit status: 0 success, 1 runtime error (bad input, unwritable output),\n"
    "2 usage error. Errors are reported as one line on stderr.\n"
    "Options take their value as '--name value' or '--name=value'.\n";

const char kScanHead[] =
    "usage: sl3d scan --method phaseshift|sgbm --images DIR --q FILE -o OUT.ply\n"
    "                 [--depth-png FILE] [--params FILE]\n"
    "\n"
    "Measures one capture and writes its points, with the range grid (camera 0's\n"
    "pixel -> point), as a binary little-endian PLY file.\n"
    "\n"
    "Options:\n"
    "  --method M         phaseshift: 13 projected frames per camera;\n"
    "                     sgbm: one textured image per camera\n"
    "  --images DIR       directory of the captures (see below)\n"
    "  --q FILE           YAML file (OpenCV FileStorage) with the 4x4\n"
    "                     reprojection matrix under the key \"Q\"\n"
    "  -o, --output FILE  the PLY file to write\n"
    "  --depth-png FILE   also write a colour-coded depth preview on camera 0's\n"
    "                     pixel grid: near blue, far red (2nd..98th percentile\n"
    "                     of depth), black where there is no point\n"
    "  --params FILE      YAML file overriding method parameters by field name;\n"
    "                     keys left out keep their defaults. Keys:\n";

const char kScanTail[] =
    "\n"
    "Captures: PNG files, 8-bit single-channel grey, all of one size. Colour and\n"
    "16-bit PNGs are refused rather than converted, since they usually mean the\n"
    "wrong files were picked.\n"
    "  phaseshift  cam0_00.png .. cam0_12.png and cam1_00.png .. cam1_12.png;\n"
    "              the number is the frame index: 00 black, 01 white,\n"
    "              02..08 Gray code (most significant bit first),\n"
    "              09..12 the four fringes, each shifted by a quarter period.\n"
    "              Width and height must be multiples of 8.\n"
    "  sgbm        cam0.png (left camera) and cam1.png (right camera).\n"
    "Other files in DIR are ignored, except phase-shift frames numbered 13 or\n"
    "more, which are refused. 'sl3d synth' writes such a directory.\n"
    "\n"
    "Outputs are written to a temporary name and renamed into place when\n"
    "complete; a failed run leaves no output file.\n";

const char kSynth[] =
    "usage: sl3d synth --out DIR [--width W] [--height H] [--noise SIGMA]\n"
    "                  [--blur SIGMA]\n"
    "\n"
    "Renders the default scene (a tilted wall at about 1100 mm and a sphere in\n"
    "front of it) with the virtual sensor and writes, into DIR (created when\n"
    "missing), everything 'sl3d scan' reads:\n"
    "  cam0_00.png .. cam0_12.png, cam1_00.png .. cam1_12.png  phase-shift frames\n"
    "  cam0.png, cam1.png                                      textured pair\n"
    "  q.yaml                                                  Q matrix (key \"Q\")\n"
    "\n"
    "Options:\n"
    "  --out DIR       output directory\n"
    "  --width W       image width, a multiple of 8 (default 1280)\n"
    "  --height H      image height, a multiple of 8 (default 1024)\n"
    "  --noise SIGMA   sensor noise in grey levels (default 1)\n"
    "  --blur SIGMA    Gaussian blur in pixels (default 0)\n"
    "The focal length scales with the width (1400 px at 1280), so the scene\n"
    "fills the view at any size.\n";

const char kDemo[] =
    "usage: sl3d demo [--out DIR]\n"
    "\n"
    "Renders the default scene at 1280x1024, measures it with both methods and\n"
    "writes into DIR (default out/demo): phaseshift.ply, sgbm.ply (with range\n"
    "grids), phaseshift_depth.png and sgbm_depth.png. Prints per method the\n"
    "points, coverage, the depth error against the rendered truth (RMS and\n"
    "95th percentile of |z - z_true| in mm, and the count of errors above\n"
    "10 mm) and the time per stage.\n";

// Fills lines up to 79 columns with the words of `text`, each line indented.
std::string wrapped(const std::string& text, const std::string& indent) {
  std::string out, line = indent;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find(' ', start);
    if (end == std::string::npos) end = text.size();
    const std::string word = text.substr(start, end - start);
    if (line.size() > indent.size() && line.size() + 1 + word.size() > 79) {
      out += line + "\n";
      line = indent;
    }
    line += (line.size() > indent.size() ? " " : "") + word;
    start = end + 1;
  }
  return out + line + "\n";
}

std::string scan_usage() {
  const std::string indent(23, ' ');
  return std::string(kScanHead) +
         wrapped("phaseshift: " + param_names(Method::kPhaseShift), indent) +
         wrapped("sgbm: " + param_names(Method::kSgbm), indent) + kScanTail;
}

}  // namespace

std::string general_usage() { return kGeneral; }

std::string command_usage(const std::string& command) {
  if (command == "scan") return scan_usage();
  if (command == "synth") return kSynth;
  if (command == "demo") return kDemo;
  if (command == "help") return kGeneral;
  return "";
}

void progress(const std::string& note) {
  if (::isatty(STDERR_FILENO)) std::fprintf(stderr, "sl3d: %s\n", note.c_str());
}

}  // namespace sl3d
