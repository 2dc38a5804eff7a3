// `sl3d board`: a circle-marker calibration board of either family to
// print (true-scale SVG and a PNG at a stated resolution) and the key file
// `sl3d detect` and `sl3d calibrate` read it with.

#include "board.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <regex>

#include "args.h"
#include "board_family.h"
#include "board_params.h"
#include "commands.h"
#include "errors.h"
#include "io.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

const char kCommand[] = "board";
constexpr int kDefaultCols = 9;
constexpr int kDefaultRows = 6;
constexpr double kDefaultSpacingMm = 30.0;
constexpr int kDefaultDpi = 300;
constexpr int kMinDpi = 50;
constexpr int kMaxDpi = 1200;
// A circle spacing below this many pixels would not draw round circles.
constexpr double kMinSpacingPx = 16.0;
constexpr double kMaxPixels = 4.0e8;

struct NamedPage {
  const char* name;
  cv::Size2d size;  // portrait, millimetres
};
const NamedPage kPages[] = {
    {"a4", {210.0, 297.0}}, {"a3", {297.0, 420.0}}, {"letter", {215.9, 279.4}}};

cv::Size2d parse_page(const std::string& text) {
  for (const NamedPage& page : kPages) {
    if (text == page.name) return page.size;
  }
  static const std::regex kSize("([0-9]+(\\.[0-9]+)?)x([0-9]+(\\.[0-9]+)?)");
  std::smatch match;
  if (std::regex_match(text, match, kSize)) {
    const cv::Size2d size(std::stod(match[1].str()), std::stod(match[3].str()));
    if (size.width > 0.0 && size.height > 0.0) return size;
  }
  throw usage_error(kCommand, "--page expects a4, a3, letter or WIDTHxHEIGHT in mm, got '" +
                                  text + "'");
}

std::string mm(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", v);
  return text;
}

// The page turned so that the board fits, or a usage error.
cv::Size2d fitted_page(const BoardDesign& d, cv::Size2d page, const std::string& name) {
  const cv::Size2d turned(page.height, page.width);
  const bool portrait = d.width() <= page.width && d.height() <= page.height;
  const bool landscape = d.width() <= turned.width && d.height() <= turned.height;
  if (!portrait && !landscape) {
    throw usage_error(kCommand, "the board is " + mm(d.width()) + " x " + mm(d.height()) +
                                    " mm and does not fit the page " + name + " (" +
                                    mm(page.width) + " x " + mm(page.height) +
                                    " mm); use fewer circles or a smaller --spacing");
  }
  // Keep the page's own orientation when the board fits either way.
  return portrait ? page : turned;
}

BoardPrint board_request(const ParsedArgs& parsed) {
  const BoardFamily family = parse_board_family(kCommand, parsed.require("--board"));
  const int cols = parsed.get_int("--nx", kDefaultCols, kBoardMinCols, kBoardMaxCircles);
  const int rows = parsed.get_int("--ny", kDefaultRows, kBoardMinRows, kBoardMaxCircles);
  const double spacing = parsed.get_double("--spacing", kDefaultSpacingMm, -1e9, 1e9);
  if (!(spacing > 0.0)) {
    throw usage_error(kCommand, "--spacing must be a positive length in mm, got '" +
                                    parsed.get("--spacing", "") + "'");
  }
  BoardPrint print;
  print.dpi = parsed.get_int("--dpi", kDefaultDpi, kMinDpi, kMaxDpi);
  make_board_design(family, cols, rows, spacing, print.design);
  if (parsed.has("--page")) {
    const std::string name = parsed.require("--page");
    print.page = fitted_page(print.design, parse_page(name), name);
  }
  const double spacing_px = spacing * pixels_per_mm(print.dpi);
  if (spacing_px < kMinSpacingPx) {
    throw usage_error(kCommand, "at " + std::to_string(print.dpi) + " dpi a spacing of " +
                                    mm(spacing) + " mm is " + mm(spacing_px) +
                                    " pixels; give at least 16 (a larger --spacing or --dpi)");
  }
  const cv::Size2d drawing = print.page.area() > 0 ? print.page
                                                   : cv::Size2d(print.design.width(),
                                                                print.design.height());
  if (drawing.area() * std::pow(pixels_per_mm(print.dpi), 2) > kMaxPixels) {
    throw usage_error(kCommand, "the PNG would exceed 400 million pixels; lower --dpi");
  }
  return print;
}

// PNG's CRC-32 (ISO 3309), over a chunk's type and data.
std::uint32_t crc32(const unsigned char* data, std::size_t size) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return crc ^ 0xFFFFFFFFu;
}

void put_be32(std::vector<unsigned char>& out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<unsigned char>(v >> shift));
}

// The PNG with a pHYs chunk stating its resolution, so that viewers and
// print dialogs print it at its true size. It goes right after IHDR.
std::vector<unsigned char> png_with_dpi(const cv::Mat& image, int dpi, const std::string& path) {
  std::vector<unsigned char> png = encode_png(image, path);
  constexpr std::size_t kAfterHeader = 8 + 4 + 4 + 13 + 4;  // signature, IHDR chunk
  if (png.size() < kAfterHeader) throw file_error(path, "cannot encode the image as PNG");
  std::vector<unsigned char> chunk;
  put_be32(chunk, 9);
  for (char c : {'p', 'H', 'Y', 's'}) chunk.push_back(static_cast<unsigned char>(c));
  const auto per_metre = static_cast<std::uint32_t>(std::lround(dpi / 0.0254));
  put_be32(chunk, per_metre);
  put_be32(chunk, per_metre);
  chunk.push_back(1);  // unit: metre
  put_be32(chunk, crc32(chunk.data() + 4, chunk.size() - 4));
  png.insert(png.begin() + kAfterHeader, chunk.begin(), chunk.end());
  return png;
}

std::vector<std::string> key_file_comment(const BoardDesign& d) {
  const int last = d.cols - 1;
  return {std::string(family_name(d.family)) + " calibration board made by 'sl3d board': " +
              std::to_string(d.cols) + " x " + std::to_string(d.rows) + " circles, " +
              mm(d.spacing) + " mm apart, " + mm(d.width()) + " x " + mm(d.height()) + " mm",
          "unit_length is the spacing as drawn. Measure the printed board (the centre",
          "distance of the first and last circle of a row, divided by " + std::to_string(last) +
              ") and write it here:",
          "every calibrated length comes out in the unit and scale of unit_length.",
          "min_radius " + mm(kPrintedBoardMinRadius) +
              " wants the rings' holes at least about 11 pixels across in every view."};
}

void print_summary(const std::string& dir, const BoardPrint& print, cv::Size png) {
  const BoardDesign& d = print.design;
  std::printf("wrote board.svg, board.png (%dx%d px at %d dpi) and board_params.yaml to %s\n",
              png.width, png.height, print.dpi, dir.c_str());
  std::printf("%s board: %d x %d circles %s mm apart, %s x %s mm", family_name(d.family), d.cols,
              d.rows, mm(d.spacing).c_str(), mm(d.width()).c_str(), mm(d.height()).c_str());
  if (print.page.area() > 0) {
    std::printf(", centred on a %s x %s mm page", mm(print.page.width).c_str(),
                mm(print.page.height).c_str());
  }
  std::printf("\nprint at 100 %% (no fitting to the page), then measure the printed spacing "
              "and write it as unit_length into %s/board_params.yaml\n",
              dir.c_str());
}

}  // namespace

cv::Size write_board_print(const std::string& dir, const BoardPrint& print) {
  const double ppmm = pixels_per_mm(print.dpi);
  const cv::Mat png = board_raster(print.design, ppmm, print.page);
  if (png.empty()) {
    throw CliError("the board is too large to draw at " + std::to_string(print.dpi) + " dpi");
  }
  prepare_output_directory(dir);
  std::vector<PendingFile> files;
  files.reserve(3);
  files.emplace_back((fs::path(dir) / "board.svg").string());
  files.back().write(board_svg(print.design, print.page));
  files.emplace_back((fs::path(dir) / "board.png").string());
  files.back().write(png_with_dpi(png, print.dpi, files.back().final_path()));
  files.emplace_back((fs::path(dir) / "board_params.yaml").string());
  files.back().write(board_key_text(board_keys(print.design, kPrintedBoardMinRadius),
                                    key_file_comment(print.design)) +
                     circle_radius_key_text(print.design.radius));
  commit_all(files);
  return png.size();
}

int run_board(const std::vector<std::string>& args) {
  const ParsedArgs parsed = parse_options(kCommand, args,
                                          {{"--board", true},
                                           {"--out", true},
                                           {"--nx", true},
                                           {"--ny", true},
                                           {"--spacing", true},
                                           {"--dpi", true},
                                           {"--page", true}});
  const std::string dir = parsed.require("--out");
  const BoardPrint print = board_request(parsed);
  print_summary(dir, print, write_board_print(dir, print));
  return 0;
}

}  // namespace sl3d
