#include <unistd.h>

#include <cstdio>

#include "commands.h"
#include "board_params.h"
#include "params.h"

namespace sl3d {

namespace {

const char kGeneral[] =
    "usage: sl3d <command> [options]\n"
    "\n"
    "Commands:\n"
    "  scan        measure a directory of captures and write a PLY point cloud\n"
    "  synth       render a test capture set with the virtual sensor\n"
    "  demo        calibrate the virtual sensor, measure with both methods and\n"
    "              compare with the truth\n"
    "  calib-info  show what a calibration directory holds and whether it loads\n"
    "  detect      recognize circle-marker calibration boards in images\n"
    "  calibrate   calibrate the camera pair from board images of both cameras\n"
    "  patterns    write the 13 projector frames of a phase-shift capture, or\n"
    "              check how captured frames are exposed\n"
    "  board       write a calibration board to print (SVG, PNG) and its key file\n"
    "  help        show this text; 'sl3d <command> --help' shows a command's\n"
    "\n"
    "'sl3d --version' prints the version.\n"
    "\n"
    "Exit status: 0 success, 1 runtime error (bad input, unwritable output),\n"
    "2 usage error, 3 (detect) a board was not recognized. Errors are\n"
    "reported as one line on stderr.\n"
    "Options take their value as '--name value' or '--name=value'.\n";

const char kScanHead[] =
    "usage: sl3d scan --method phaseshift|sgbm --images DIR --q FILE -o OUT.ply\n"
    "                 [EXPORTS] [--params FILE] [--threads N] [--no-filter]\n"
    "       sl3d scan --method phaseshift|sgbm --images DIR --calib DIR\n"
    "                 [--mode 0|1|2] -o OUT.ply [EXPORTS] [--params FILE]\n"
    "                 [--threads N] [--no-filter]\n"
    "EXPORTS: [--depth-png FILE [--depth-range MIN:MAX]] [--depth-tiff FILE]\n"
    "         [--xyz-tiff FILE]\n"
    "\n"
    "Measures one capture and writes its points, with the range grid (camera 0's\n"
    "pixel -> point), as a binary little-endian PLY file. With --q the captures\n"
    "are already rectified; with --calib they are raw and are rectified through\n"
    "the calibration directory first, and points are in the left rectified\n"
    "camera's frame.\n"
    "\n"
    "Options:\n"
    "  --method M         phaseshift: 13 projected frames per camera;\n"
    "                     sgbm: one textured image per camera\n"
    "  --images DIR       directory of the captures (see below)\n"
    "  --q FILE           YAML file (OpenCV FileStorage) with the 4x4\n"
    "                     reprojection matrix under the key \"Q\"\n"
    "  --calib DIR        calibration directory of raw captures: hmat0.dat,\n"
    "                     hmat1.dat, rect.param (tried first) or cam0_param.yaml,\n"
    "                     cam1_param.yaml; the captures must have the size it was\n"
    "                     made for ('sl3d calib-info DIR' shows it)\n"
    "  --mode M           with --calib only: triangulation 0 by Q (default),\n"
    "                     1 by the closest approach of the two sight rays,\n"
    "                     2 by least squares over both projection matrices\n"
    "  -o, --output FILE  the PLY file to write\n"
    "  --depth-png FILE   also write a colour-coded depth preview on camera 0's\n"
    "                     pixel grid: near blue, far red (2nd..98th percentile\n"
    "                     of depth), black where there is no point, with a\n"
    "                     colour bar labelled in mm on the right\n"
    "  --depth-range MIN:MAX  the preview's colours span MIN..MAX mm instead,\n"
    "                     so that previews of several scans compare\n"
    "  --depth-tiff FILE  depth (z, mm) as a 32-bit float TIFF on camera 0's\n"
    "                     pixel grid (the range grid's), NaN where no point\n"
    "  --xyz-tiff FILE    the points as a 3-channel 32-bit float TIFF, x y z per\n"
    "                     pixel (cv::imread/cv2.imread with IMREAD_UNCHANGED give\n"
    "                     channels x, y, z; OpenCV stores them in RGB order, so\n"
    "                     other TIFF readers see z, y, x), NaN where no point\n"
    "  --threads N        threads for reading the PNGs and measuring (default 0:\n"
    "                     all cores; 1 keeps everything on one); the result\n"
    "                     is the same for every N\n"
    "  --no-filter        keep every disparity the generator produced. By default\n"
    "                     outliers are removed between matching and\n"
    "                     triangulation: phase-shift pixels the decode rejected,\n"
    "                     whole-pixel matches that cannot be refitted, pixels at\n"
    "                     depth edges and at the borders of shadows and of the\n"
    "                     lit area, and patches of fewer than 50 pixels (about\n"
    "                     1 % of the points, most of those far from any surface);\n"
    "                     the count removed is printed\n"
    "  --params FILE      key file overriding method parameters by field name\n"
    "                     (the same dialect as 'sl3d detect --params'); each\n"
    "                     key once, inside its range; keys left out keep their\n"
    "                     defaults. Keys:\n";

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
    "Exactly one of --q and --calib is given.\n"
    "\n"
    "Outputs are written to a temporary name and renamed into place when\n"
    "complete; a failed run leaves no output file.\n";

const char kSynth[] =
    "usage: sl3d synth --out DIR [--rectified] [--width W] [--height H]\n"
    "                  [--noise SIGMA] [--blur SIGMA]\n"
    "       sl3d synth --boards DIR [--board pellux|quill] [--views N | --stereo]\n"
    "                  [--width W] [--height H] [--noise SIGMA] [--blur SIGMA]\n"
    "\n"
    "Renders the default scene (a tilted wall at about 1100 mm and a sphere in\n"
    "front of it) with the virtual sensor and writes, into DIR (created when\n"
    "missing), everything 'sl3d scan' reads:\n"
    "  cam0_00.png .. cam0_12.png, cam1_00.png .. cam1_12.png  phase-shift frames\n"
    "  cam0.png, cam1.png                                      textured pair\n"
    "  calib/   by default: the captures are raw (two real cameras with lens\n"
    "           distortion, not rectified) and calib/ is their calibration\n"
    "           directory: 'sl3d scan --images DIR --calib DIR/calib'\n"
    "  q.yaml   with --rectified: the captures come from an ideal rectified\n"
    "           pair and q.yaml holds its Q: 'sl3d scan --q DIR/q.yaml'\n"
    "\n"
    "Options:\n"
    "  --out DIR       output directory\n"
    "  --rectified     render the ideal rectified pair instead of raw cameras\n"
    "  --width W       image width, a multiple of 8 (default 1280)\n"
    "  --height H      image height, a multiple of 8 (default 1024)\n"
    "  --noise SIGMA   sensor noise in grey levels (default 1)\n"
    "  --blur SIGMA    Gaussian blur in pixels (default 0)\n"
    "The focal length scales with the width (about 1400 px at 1280), so the\n"
    "scene fills the view at any size.\n"
    "\n"
    "With --boards DIR (instead of --out) it renders a 7 x 5 circle board of\n"
    "the family --board (default pellux), 20 mm spacing, dark circles, at\n"
    "about 330 mm, and writes into DIR:\n"
    "  board_00.png ..     one view per pose, 8-bit grey\n"
    "  board_params.yaml   the key file 'sl3d detect' recognizes them with\n"
    "  truth.csv           per view and circle: image, the marker index the\n"
    "                      recognizer should give it, the projected true centre\n"
    "                      x,y, the centre of the imaged ellipse ellipse_x,\n"
    "                      ellipse_y, and the board position X,Y,Z in mm\n"
    "  --views N  the first N poses (default all). pellux: 8 poses, nearly\n"
    "             frontal (10 degrees), tilted up to 40 degrees and rolled all\n"
    "             the way round; quill:\n"
    "             8 poses, each turned 30-40 degrees about the board's vertical\n"
    "             axis with a small tilt and roll, since that family takes its\n"
    "             x axis from the ring's farthest neighbour.\n"
    "\n"
    "With --boards DIR --stereo it renders a calibration set instead: an 11 x 8\n"
    "board of the family, 30 mm spacing, at 12 poses 600 to 1000 mm away, seen\n"
    "by both raw cameras of the capture rig (the ones 'sl3d synth --out' uses,\n"
    "with their lens distortion), and writes into DIR:\n"
    "  left_00.png .., right_00.png ..  the views, same number same moment\n"
    "  board_params.yaml   the key file 'sl3d calibrate' reads\n"
    "  truth.csv           as above, per image\n"
    "  true_calib/         the cameras' true calibration directory\n"
    "Then: sl3d calibrate --board F --params DIR/board_params.yaml\n"
    "        --left DIR/left_*.png --right DIR/right_*.png -o CALIBDIR\n";

const char kDetectHead[] =
    "usage: sl3d detect --board pellux|quill --params FILE IMAGE...\n"
    "                   [--result-dir DIR]\n"
    "\n"
    "Recognizes a circle-marker calibration board in each image and prints one\n"
    "line per image: IMAGE: CODE NAME, N/TOTAL circles numbered. Codes:\n"
    "0 Success, 1 ImageSize_Changed, 2 Few_Contours, 3 BaseMarker_NotFound,\n"
    "4 N_BaseMarker_NotMatch, 5 BaseMarker_ClassifyFailure (pellux only).\n"
    "Success with N below TOTAL means some circles were not reached.\n"
    "\n"
    "Options:\n"
    "  --board F       pellux: three rings (origin, x axis, y axis);\n"
    "                  quill: one ring, the origin\n"
    "  --params FILE   the board and recognizer parameters: flat YAML as\n"
    "                  cv::FileStorage writes it ('%YAML:1.0', '---'), or plain\n"
    "                  'key: value' lines; '#' starts a comment. Each key once;\n"
    "                  values are numbers inside the key's range (do_* keys 0\n"
    "                  or 1, counts and bin_* whole numbers, at most 1000\n"
    "                  circles a side); keys left out keep their defaults,\n"
    "                  unit_length, n_circles_x and n_circles_y must be given.\n"
    "                  An error names the file, the line and the key. Keys:\n";

const char kDetectTail[] =
    "  --result-dir DIR  for each recognized image write STEM_result.png (the\n"
    "                  numbered circles drawn in colour with their indices, the\n"
    "                  board's x axis red and y axis green) and STEM_points.csv\n"
    "                  (index,x,y,X,Y,Z of every numbered circle); DIR is\n"
    "                  created when missing. Result files of an image that is\n"
    "                  not recognized or not readable are removed.\n"
    "\n"
    "Images: 8-bit grey PNGs; colour and 16-bit PNGs are refused rather than\n"
    "converted. Each image may have its own size. An image that cannot be\n"
    "read gives one line on stderr and the others are still processed.\n"
    "\n"
    "Exit status: 0 every image read and recognized (code 0); 3 every image\n"
    "read but at least one not recognized; 1 an image could not be read or a\n"
    "result not written, or the params file is bad (then nothing is\n"
    "processed); 2 usage error.\n";

const char kCalibrate[] =
    "usage: sl3d calibrate --board pellux|quill --params FILE\n"
    "                      --left L1.png L2.png ... --right R1.png R2.png ...\n"
    "                      -o CALIBDIR [--flags N] [--focal F] [--radius R]\n"
    "                      [--no-refine]\n"
    "\n"
    "Calibrates the sensor's two cameras from images of a circle-marker board\n"
    "taken by both at several poses (the i-th left and the i-th right image at\n"
    "the same moment): recognizes the board in every image, calibrates each\n"
    "camera (focal lengths, principal point, distortion k1 k2 p1 p2 k3) and\n"
    "then the right camera's pose relative to the left one, rectifies the pair\n"
    "and writes the calibration directory CALIBDIR that 'sl3d scan --calib'\n"
    "reads:\n"
    "  cam0_param.yaml, cam1_param.yaml   the calibrated cameras (\"cam0\" left)\n"
    "  stereo_param.yaml, rect0.map, rect1.map   the rectified pair\n"
    "  hmat0.dat, hmat1.dat, rect.param   its binary form\n"
    "The files are made whole under a temporary name first; a failed run\n"
    "leaves CALIBDIR as it was. An existing CALIBDIR keeps every other file:\n"
    "only the eight files above are replaced. Every file is read back after\n"
    "writing, so a full disk is an error, not a broken directory.\n"
    "\n"
    "Prints per image the recognition code and name, the markers numbered and\n"
    "the reprojection error of its view (nan when it was left out), then the\n"
    "cameras, the pose and the stereo RMS reprojection error. An image is left\n"
    "out, with a warning on stderr, when its board is not recognized or fewer\n"
    "than 5 markers are numbered; a view is used for the pose when both of its\n"
    "images were recognized. With more images on one side the extra ones serve\n"
    "only that camera. A view whose right image lies more than 1 px (and ten\n"
    "times the median view) from where its left image's board pose puts it\n"
    "numbers the markers differently in its two images: it is left out of both\n"
    "cameras with a warning and the pair calibrated again (not with\n"
    "--no-refine).\n"
    "\n"
    "Options:\n"
    "  --board F       the board family, as for 'sl3d detect'\n"
    "  --params FILE   the board and recognizer key file, as for 'sl3d detect'\n"
    "  --left IMG...   the left camera's images (8-bit grey PNGs, one size)\n"
    "  --right IMG...  the right camera's images, in the same order\n"
    "  -o, --out DIR   the calibration directory to write\n"
    "  --flags N       OpenCV calibration flags (cv::CALIB_*; default 128,\n"
    "                  CALIB_FIX_K3: the lens is modelled by k1 k2 p1 p2, since\n"
    "                  a free k3 fits the noise of the marker centres and bends\n"
    "                  the image corners; both cameras' intrinsics are refined\n"
    "                  again with the pose). 0 frees k3\n"
    "  --focal F       initial focal length in pixels, used with the flag\n"
    "                  CALIB_USE_INTRINSIC_GUESS (1); 0 ignores that flag for\n"
    "                  the single cameras\n"
    "  --radius R      the circles' radius (a ring's outer one) in the unit of\n"
    "                  unit_length; default: the key file's \"circle_radius\",\n"
    "                  which 'sl3d board' and 'sl3d synth --boards' write\n"
    "  --no-refine     calibrate from the recognizer's marker centres as they\n"
    "                  are. By default every marker is measured again from the\n"
    "                  image (edge points round its outline, an ellipse fit)\n"
    "                  and, when the radius is known, the calibration is\n"
    "                  refined for the circle-centre bias: under perspective\n"
    "                  the centre of a circle's outline is not the image of its\n"
    "                  centre. From the first calibration the offset of every\n"
    "                  marker is predicted, the centres corrected and the pair\n"
    "                  calibrated again until the cameras stop moving; each\n"
    "                  step's RMS and change of the intrinsics is printed.\n"
    "                  Without a radius the refinement is skipped, with a note\n"
    "\n"
    "Exit status: 0 calibrated and written; 1 an image or the params file\n"
    "could not be read, the images differ in size, a camera has no usable\n"
    "image, no view has both images recognized, or the directory could not be\n"
    "written; 2 usage error.\n"
    "Try it: sl3d synth --boards B --stereo, then the command that prints.\n";

const char kDemo[] =
    "usage: sl3d demo [--out DIR]\n"
    "\n"
    "The whole life of a sensor on the virtual sensor at 1280x1024 (DIR defaults\n"
    "to out/demo):\n"
    "  1. its two real cameras (lens distortion, not rectified) photograph a\n"
    "     pellux calibration board at 12 poses: DIR/boards/left_NN.png,\n"
    "     right_NN.png, board_params.yaml, and the true calibration true_calib/;\n"
    "  2. the pair is calibrated from those images as 'sl3d calibrate' does it\n"
    "     (markers measured again, circle-centre refinement, k3 fixed) and the\n"
    "     calibration directory written to DIR/calib; the calibration is\n"
    "     compared with the true cameras (focal lengths, principal points,\n"
    "     what lens and intrinsics errors do to pixels, baseline, rotation);\n"
    "  3. raw captures of the default scene are rectified through DIR/calib and\n"
    "     through the true calibration, measured with phase shift and block\n"
    "     matching in modes 0, 1 and 2, and filtered as 'sl3d scan' does.\n"
    "Prints per method, calibration and mode the points, the disparities the\n"
    "filter removed, the coverage of all pixels and of the pixels that can be\n"
    "measured at all (lit by the projector, inside the usable periods, seen by\n"
    "camera 1), the distance of the points to the true surfaces (RMS, 95th\n"
    "percentile, largest, count above 5 mm) and the time per stage, then all of\n"
    "it as one table. Writes phaseshift.ply, sgbm.ply (mode 0, with range\n"
    "grids), their depth as float TIFF (phaseshift_depth.tiff, sgbm_depth.tiff)\n"
    "and previews with a colour bar on one scale (phaseshift_depth.png,\n"
    "sgbm_depth.png). What a real sensor's user makes is made the same way: the\n"
    "board the cameras see is DIR/board/board.png as 'sl3d board' writes it\n"
    "(11 x 8 circles, 30 mm), calibrated with its key file, and the projector\n"
    "throws DIR/patterns/pattern_NN.png as 'sl3d patterns' writes them for a\n"
    "1920x1080 projector.\n";

const char kCalibInfo[] =
    "usage: sl3d calib-info DIR [--size WxH]\n"
    "\n"
    "Shows what the calibration directory DIR holds and whether it loads, file\n"
    "by file, the way 'sl3d scan --calib' loads it:\n"
    "  binary form    hmat0.dat, hmat1.dat (projection matrices of the left and\n"
    "                 right rectified cameras), rect.param (their rectification\n"
    "                 tables); tried first\n"
    "  camera files   cam0_param.yaml, cam1_param.yaml (the raw cameras with\n"
    "                 their distortion; rectified when loaded); tried second\n"
    "  pair YAML form stereo_param.yaml, rect0.map, rect1.map; reported, but\n"
    "                 not read by scan\n"
    "Prints the image size, the raw cameras' focal lengths, and for the form\n"
    "scan would use the rectified focal length, baseline, Q and whether the\n"
    "maps load. Each missing or corrupt file gives one line on stderr.\n"
    "\n"
    "Options:\n"
    "  --size WxH   raw image size to check against (default: as cam0_param.yaml\n"
    "               or stereo_param.yaml states it; the binary form alone does\n"
    "               not state it)\n"
    "\n"
    "Exit status 0 when the binary form or the camera files load, else 1.\n";

const char kPatterns[] =
    "usage: sl3d patterns --width W --height H --out DIR [--period P]\n"
    "       sl3d patterns --check DIR [--params FILE]\n"
    "\n"
    "Writes the 13 frames a projector of W x H pixels throws for one phase-shift\n"
    "capture, 8-bit grey PNGs DIR/pattern_00.png .. pattern_12.png (DIR is\n"
    "created when missing). The number is the frame index of 'sl3d scan': 00\n"
    "black, 01 white, 02..08 Gray code of the stripe period (most significant\n"
    "bit first), 09..12 sinusoidal fringes, each shifted a quarter period\n"
    "further. 128 periods of P columns lie side by side, centred on the\n"
    "projector (columns left over stay black); the phase rises with the column\n"
    "and wraps where the period number rises. Stripes are vertical: the two\n"
    "cameras must sit side by side. Only periods 25..96 are measured;\n"
    "DIR/patterns.yaml states the period, the columns of the 128 periods and\n"
    "those of the usable ones (usable_first_column, usable_last_column): aim the\n"
    "projector so that they cover what both cameras see.\n"
    "\n"
    "Capture: for each frame index NN, project pattern_NN.png full screen\n"
    "(no scaling) and save both cameras' images as cam0_NN.png (left) and\n"
    "cam1_NN.png (right), 8-bit grey, with fixed exposure, gain and focus.\n"
    "\n"
    "Options:\n"
    "  --width W, --height H  the projector's resolution in pixels; W at least\n"
    "                 256 (128 periods of 2 columns)\n"
    "  --out DIR      where to write the frames\n"
    "  --period P     columns per period, 2 .. W/128 (default W/128, rounded\n"
    "                 down: the largest that fits). Finer fringes measure finer\n"
    "                 but need sharp focus of projector and cameras.\n"
    "\n"
    "With --check DIR it reads captures named as above (cam0_*, cam1_* or both)\n"
    "and prints, per camera and frame, the mean grey level and the share of\n"
    "saturated (255) and of dark pixels (below the minimum white level), the\n"
    "share of pixels the generator rejects for low contrast or white level, and\n"
    "the fringes' modulation, with advice when the white frame saturates, most\n"
    "pixels are rejected or the fringes are weak. --params FILE takes the\n"
    "generator's thresholds from the parameter file 'sl3d scan' would read.\n";

const char kBoard[] =
    "usage: sl3d board --board pellux|quill --out DIR [--nx N] [--ny N]\n"
    "                  [--spacing MM] [--dpi D] [--page a4|a3|letter|WxH]\n"
    "\n"
    "Writes a circle-marker calibration board to print into DIR (created when\n"
    "missing):\n"
    "  board.svg           true scale, millimetres: print at 100 % (no fitting to\n"
    "                      the page)\n"
    "  board.png           the same at D dots per inch, which it states\n"
    "  board_params.yaml   the key file 'sl3d detect' and 'sl3d calibrate' read\n"
    "                      for this board: its grid, origin, unit_length (the\n"
    "                      spacing in mm) and recognizer settings that work on it\n"
    "Dark circles on white, 0.8 spacings across; the base markers are rings\n"
    "with a hole of 0.45 spacings. pellux: three rings, the origin O, X two\n"
    "circles to its right and Y above it; x runs from O to X, y from O to Y.\n"
    "quill: one ring, the origin, the third circle from the right in the\n"
    "second row; hold this board turned 30-40 degrees about its vertical axis\n"
    "and its top edge 10-15 degrees nearer the camera than its bottom edge: the\n"
    "recognizer takes the board's x axis from the ring's neighbour farthest\n"
    "from it in the image, which is then the one above it (y runs left).\n"
    "Hold either board 20 to 45 degrees from facing the camera: facing it\n"
    "squarely, every circle is equally round and the recognizer's roundness\n"
    "filter may drop a circle or a ring's hole.\n"
    "Prints the board's size. Measure the printed spacing (the centre distance\n"
    "of the first and last circle of a row, divided by N-1) and write it as\n"
    "unit_length into board_params.yaml: calibrated lengths take its scale.\n"
    "\n"
    "Options:\n"
    "  --board F     the family\n"
    "  --out DIR     where to write\n"
    "  --nx N        circles across, 4..100 (default 9)\n"
    "  --ny N        circles down, 3..100 (default 6)\n"
    "  --spacing MM  centre distance in mm (default 30: 285 x 195 mm, A4)\n"
    "  --dpi D       resolution of board.png, 50..1200 (default 300)\n"
    "  --page P      the paper: a4, a3, letter or WxH in mm. The board must\n"
    "                fit it (either way round); both drawings are then the\n"
    "                page's size with the board in its middle.\n";

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

std::string detect_usage() {
  const std::string indent(19, ' ');
  return std::string(kDetectHead) + wrapped("pre-processing: " + pre_proc_keys(), indent) +
         wrapped("circle search: " + circle_marker_keys(), indent) +
         wrapped("board: " + calib_board_keys(), indent) +
         wrapped("read by calibrate only: " + tool_board_keys(), indent) + kDetectTail;
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
  if (command == "calib-info") return kCalibInfo;
  if (command == "detect") return detect_usage();
  if (command == "calibrate") return kCalibrate;
  if (command == "patterns") return kPatterns;
  if (command == "board") return kBoard;
  if (command == "help") return kGeneral;
  return "";
}

void progress(const std::string& note) {
  std::fflush(stdout);
  std::fprintf(stderr, "sl3d: progress: %s\n", note.c_str());
}

}  // namespace sl3d
