#include "calib.h"

#include <cstdint>
#include <filesystem>
#include <fstream>

#include <sl3d/camera/yaml_reader.h>

#include "io.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

// The bare 3x4 binary64 projection record of an hmat file.
constexpr std::uintmax_t kHmatBytes = 96;

const char* const kBinaryFiles[] = {"hmat0.dat", "hmat1.dat", "rect.param"};
const char* const kCameraFiles[] = {"cam0_param.yaml", "cam1_param.yaml"};
const char* const kPairFiles[] = {"stereo_param.yaml", "rect0.map", "rect1.map"};

// Joined as the library joins them, so messages name what it opened.
std::string in_dir(const std::string& dir, const std::string& name) { return dir + "/" + name; }

bool is_file(const std::string& path) {
  std::error_code ec;
  return fs::is_regular_file(path, ec);
}

template <std::size_t N>
bool any_present(const std::string& dir, const char* const (&names)[N]) {
  for (const char* name : names) {
    std::error_code ec;
    if (fs::exists(in_dir(dir, name), ec)) return true;
  }
  return false;
}

bool fail(CalibReport& r, const std::string& path, const std::string& problem) {
  r.problems.push_back({path, problem});
  return false;
}

// Through the library's guarded reader; `problem` says why it failed.
bool open_storage(const std::string& path, cv::FileStorage& storage,
                  std::string* problem = nullptr) {
  std::string error;
  if (open_yaml_storage(path, storage, &error)) return true;
  if (problem != nullptr) *problem = yaml_problem(error);
  return false;
}

cv::Size read_size_key(const std::string& path, const std::string& key) {
  cv::FileStorage storage;
  if (!is_file(path) || !open_storage(path, storage)) return cv::Size();
  try {
    std::vector<int> wh;
    if (storage[key].isSeq()) storage[key] >> wh;
    if (wh.size() == 2 && wh[0] > 0 && wh[1] > 0) return cv::Size(wh[0], wh[1]);
  } catch (const std::exception&) {
  }
  return cv::Size();
}

// An absent key is no matrix to check; a present one must read as one.
bool readable_matrix(const cv::FileNode& node) {
  if (node.empty()) return true;
  try {
    cv::Mat m;
    node >> m;
    return !m.empty();
  } catch (const std::exception&) {
    return false;
  }
}

bool usable_matrix(const cv::Mat& m) {
  return !m.empty() && cv::checkRange(m) && cv::determinant(m(cv::Rect(0, 0, 3, 3))) != 0.0;
}

bool check_hmat(CalibReport& r, const std::string& path) {
  if (!is_file(path)) return fail(r, path, "missing");
  std::error_code ec;
  const std::uintmax_t bytes = fs::file_size(path, ec);
  if (bytes < kHmatBytes) {
    return fail(r, path,
                "truncated: " + std::to_string(bytes) + " bytes, a projection record has 96");
  }
  std::ifstream in(path, std::ios::binary);
  PinHoleCamera camera(cv::Size(0, 0), "check");
  bool read = false;
  try {
    read = camera.load_hmat(in) && usable_matrix(camera.P);
  } catch (const std::exception&) {
    read = false;
  }
  return read || fail(r, path, "does not hold a valid projection matrix");
}

// The pair table starts with the pixel count of one map (int32).
bool check_tables(CalibReport& r, const std::string& path) {
  if (!is_file(path)) return fail(r, path, "missing");
  if (pixel_count(r.image_size) == 0) {
    return fail(r, path, "cannot be checked: no file states the image size (give --size WxH)");
  }
  std::ifstream in(path, std::ios::binary);
  std::int32_t count = 0;
  in.read(reinterpret_cast<char*>(&count), sizeof count);
  if (!in) return fail(r, path, "truncated: no table header");
  if (count != pixel_count(r.image_size)) {
    return fail(r, path,
                "tables of " + std::to_string(count) + " pixels, " + size_text(r.image_size) +
                    " images need " + std::to_string(pixel_count(r.image_size)) +
                    " (corrupt, or made for another image size)");
  }
  in.seekg(0);
  UndistortCamera cams[2] = {UndistortCamera(r.image_size, "L"),
                             UndistortCamera(r.image_size, "R")};
  bool loaded = false;
  try {
    loaded = LoadRectifyTables(cams, in);
  } catch (const std::exception&) {
    loaded = false;
  }
  return loaded || fail(r, path, "corrupt or truncated rectification tables");
}

void inspect_binary(CalibReport& r) {
  if (!any_present(r.dir, kBinaryFiles)) return;
  r.binary.state = FormState::kBroken;
  const std::string h0 = in_dir(r.dir, "hmat0.dat"), h1 = in_dir(r.dir, "hmat1.dat"),
                    rect = in_dir(r.dir, "rect.param");
  // Every file is checked, so that one run names all problems.
  const bool h0_ok = check_hmat(r, h0), h1_ok = check_hmat(r, h1);
  if (!check_tables(r, rect) || !h0_ok || !h1_ok) return;
  StereoCamera* pair = nullptr;
  try {
    pair = create_StereoCamera_from_Hmats(h0, h1, rect, r.image_size, cv::Scalar(), cv::Scalar());
  } catch (const std::exception&) {
    pair = nullptr;
  }
  if (pair == nullptr) {
    fail(r, r.dir, "the binary form does not load");
    return;
  }
  r.binary.pair.reset(pair);
  r.binary.state = FormState::kLoads;
}

bool check_camera_file(CalibReport& r, const std::string& path, int index) {
  if (!is_file(path)) return fail(r, path, "missing");
  cv::FileStorage storage;
  std::string problem;
  if (!open_storage(path, storage, &problem)) return fail(r, path, problem);
  const std::string name = "cam" + std::to_string(index);
  for (const char* key : {"_size", "_P"}) {
    if (storage[name + key].empty()) return fail(r, path, "missing key \"" + name + key + "\"");
  }
  // Each matrix on its own, so that the message names the one at fault.
  for (const char* key : {"_K", "_R", "_T", "_P", "_D"}) {
    if (!readable_matrix(storage[name + key])) {
      return fail(r, path, "\"" + name + key + "\" is not a valid matrix");
    }
  }
  DistortCamera camera(cv::Size(0, 0), name);
  bool loaded = false;
  try {
    loaded = camera.load(&storage) && usable_matrix(camera.P);
  } catch (const std::exception&) {
    loaded = false;
  }
  if (!loaded) return fail(r, path, "\"" + name + "_P\" is not a valid 3x4 projection matrix");
  if (pixel_count(camera.size) == 0) return fail(r, path, "\"" + name + "_size\" is not [width, height]");
  if (pixel_count(r.image_size) > 0 && camera.size != r.image_size) {
    return fail(r, path,
                "camera of " + size_text(camera.size) + ", the images are " +
                    size_text(r.image_size) + " (" + r.size_source + ")");
  }
  r.raw_cameras.push_back(camera);
  return true;
}

void inspect_cameras(CalibReport& r) {
  if (!any_present(r.dir, kCameraFiles)) return;
  r.cameras.state = FormState::kBroken;
  const std::vector<std::string> paths = {in_dir(r.dir, kCameraFiles[0]),
                                          in_dir(r.dir, kCameraFiles[1])};
  const bool first_ok = check_camera_file(r, paths[0], 0);
  if (!check_camera_file(r, paths[1], 1) || !first_ok) return;
  StereoCamera* pair = nullptr;
  std::string reason = "they do not form a stereo pair";
  try {
    pair = create_StereoCamera(paths, r.image_size, -1.0, 0, cv::Scalar(), cv::Scalar());
  } catch (const cv::Exception& e) {
    reason += ": " + e.err;
  } catch (const std::exception& e) {
    reason += std::string(": ") + e.what();
  }
  if (pair == nullptr) {
    fail(r, r.dir, "camera files: " + reason);
    return;
  }
  r.cameras.pair.reset(pair);
  r.cameras.state = FormState::kLoads;
}

bool check_map_file(CalibReport& r, const std::string& path) {
  if (!is_file(path)) return fail(r, path, "missing");
  std::ifstream in(path, std::ios::binary);
  cv::Mat map1, map2;
  bool loaded = false;
  try {
    loaded = load_map(in, map1) && load_map(in, map2) && map1.size() == map2.size();
  } catch (const std::exception&) {
    loaded = false;
  }
  return loaded || fail(r, path, "corrupt map file (bad header or truncated)");
}

void inspect_pair_yaml(CalibReport& r) {
  if (!any_present(r.dir, kPairFiles)) return;
  r.pair_yaml.state = FormState::kBroken;
  const std::string yaml = in_dir(r.dir, kPairFiles[0]);
  cv::FileStorage storage;
  std::string problem;
  bool files_ok = is_file(yaml) ? open_storage(yaml, storage, &problem) || fail(r, yaml, problem)
                                : fail(r, yaml, "missing");
  storage.release();
  files_ok = check_map_file(r, in_dir(r.dir, kPairFiles[1])) && files_ok;
  files_ok = check_map_file(r, in_dir(r.dir, kPairFiles[2])) && files_ok;
  if (!files_ok) return;
  auto pair = std::make_shared<StereoCamera>(cv::Size(0, 0));
  bool loaded = false;
  try {
    loaded = pair->load(r.dir) && !pair->Q.empty() && usable_matrix(pair->cameras[0].P) &&
             usable_matrix(pair->cameras[1].P);
  } catch (const std::exception&) {
    loaded = false;
  }
  if (!loaded) {
    fail(r, yaml, "does not load (malformed file or missing keys)");
    return;
  }
  r.pair_yaml.pair = pair;
  r.pair_yaml.state = FormState::kLoads;
}

std::string form_summary(const CalibReport& r, FormState state, const char* const* names,
                         std::size_t count) {
  std::string list;
  for (std::size_t i = 0; i < count; ++i) list += (i ? ", " : "") + std::string(names[i]);
  if (state == FormState::kAbsent) return "absent (" + list + ")";
  std::string text;
  for (const CalibProblem& p : r.problems) {
    for (std::size_t i = 0; i < count; ++i) {
      if (fs::path(p.path).filename() == names[i]) {
        text += std::string(text.empty() ? "" : ", ") + names[i] + " " + p.problem;
      }
    }
  }
  return text.empty() ? "does not load" : text;
}

}  // namespace

std::int64_t pixel_count(cv::Size size) {
  if (size.width <= 0 || size.height <= 0) return 0;
  return static_cast<std::int64_t>(size.width) * size.height;
}

std::string size_text(cv::Size size) {
  return std::to_string(size.width) + "x" + std::to_string(size.height);
}

const StereoCamera* CalibReport::usable() const {
  if (binary.pair) return binary.pair.get();
  return cameras.pair.get();
}

const char* CalibReport::usable_form_name() const {
  if (binary.pair) return "binary form";
  if (cameras.pair) return "camera files";
  return "none";
}

StatedSize stated_image_size(const std::string& dir) {
  const cv::Size cam = read_size_key(in_dir(dir, "cam0_param.yaml"), "cam0_size");
  if (pixel_count(cam) > 0) return {cam, "cam0_param.yaml"};
  const cv::Size pair = read_size_key(in_dir(dir, "stereo_param.yaml"), "oldcamSize");
  if (pixel_count(pair) > 0) return {pair, "stereo_param.yaml"};
  return {};
}

CalibReport inspect_calibration(const std::string& dir, cv::Size size,
                                const std::string& size_source) {
  CalibReport r;
  r.dir = dir;
  if (pixel_count(size) > 0) {
    r.image_size = size;
    r.size_source = size_source;
  } else {
    const StatedSize stated = stated_image_size(dir);
    r.image_size = stated.size;
    r.size_source = stated.source;
  }
  inspect_binary(r);
  inspect_cameras(r);
  inspect_pair_yaml(r);
  return r;
}

std::string calibration_failure(const std::string& dir, cv::Size size) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) return dir + ": no such directory";
  const CalibReport r = inspect_calibration(dir, size, "the captures");
  return dir + ": no usable calibration: binary form " +
         form_summary(r, r.binary.state, kBinaryFiles, 3) + "; camera files " +
         form_summary(r, r.cameras.state, kCameraFiles, 2);
}

}  // namespace sl3d
