#include "io.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <system_error>
#include <thread>

#include <opencv2/imgcodecs.hpp>

#include <sl3d/camera/yaml_reader.h>
#include <sl3d/codecs/image_codecs.h>

#include "errors.h"
#include "png_reader.h"

namespace fs = std::filesystem;

namespace sl3d {

namespace {

// libpng reports a damaged file on stderr before OpenCV returns an empty
// image; the tool states the problem itself, in one line, so decoding runs
// with stderr pointed at /dev/null (one such decode at a time).
class StderrSilenced {
 public:
  StderrSilenced() {
    std::fflush(stderr);
    saved_ = ::dup(STDERR_FILENO);
    const int null_fd = ::open("/dev/null", O_WRONLY);
    if (saved_ >= 0 && null_fd >= 0) ::dup2(null_fd, STDERR_FILENO);
    if (null_fd >= 0) ::close(null_fd);
  }
  ~StderrSilenced() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }
  StderrSilenced(const StderrSilenced&) = delete;
  StderrSilenced& operator=(const StderrSilenced&) = delete;

 private:
  int saved_ = -1;
};

std::string errno_text() { return std::strerror(errno); }

// True for a node that renaming a file over would destroy: a device, FIFO
// or socket (followed through symbolic links).
bool is_special_node(const std::string& path) {
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  return fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status);
}

// Large blocks are asked for in transparent huge pages: a scan's frames are
// tens of megabytes, written once, and each 4 KiB page would cost a fault.
void advise_huge_pages(void* data, std::size_t bytes) {
#ifdef MADV_HUGEPAGE
  constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
  const auto begin = (reinterpret_cast<std::uintptr_t>(data) + kHuge - 1) & ~(kHuge - 1);
  const auto end = (reinterpret_cast<std::uintptr_t>(data) + bytes) & ~(kHuge - 1);
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)data;
  (void)bytes;
#endif
}

// The whole file in one read: its size is known, so the buffer is sized
// once (and reused by callers that read many files).
void read_file_bytes(const std::string& path, std::vector<unsigned char>& bytes) {
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (!fs::exists(status)) throw file_error(path, "no such file");
  if (!fs::is_regular_file(status)) throw file_error(path, "not a regular file");
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) throw file_error(path, "cannot open for reading");
  bytes.clear();
  const std::uintmax_t size = fs::file_size(path, ec);
  if (!ec) bytes.resize(static_cast<std::size_t>(size));
  std::size_t got = bytes.empty() ? 0 : std::fread(bytes.data(), 1, bytes.size(), f);
  bytes.resize(got);
  // Whatever the size said, read on to the end (a file still growing, or a
  // size the file system does not know).
  for (unsigned char chunk[65536];;) {
    const std::size_t n = std::fread(chunk, 1, sizeof chunk, f);
    if (n == 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  const bool failed = std::ferror(f) != 0;
  std::fclose(f);
  if (failed) throw file_error(path, "read error");
}

bool has_png_signature(const std::vector<unsigned char>& bytes) {
  static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  return bytes.size() >= 8 && std::memcmp(bytes.data(), kSignature, 8) == 0;
}

cv::Mat decode_png_quietly(const std::vector<unsigned char>& bytes) {
  // stderr is the process's: one silenced decode at a time.
  static std::mutex silenced;
  // Codecs that cannot be loaded are the installation's fault, not the
  // file's: that error passes through.
  detail::image_codecs();
  const std::lock_guard<std::mutex> lock(silenced);
  StderrSilenced quiet;
  try {
    return detail::decode_image(bytes, cv::IMREAD_UNCHANGED);
  } catch (const cv::Exception&) {
    return cv::Mat();
  }
}

std::string describe_pixel_type(const cv::Mat& image) {
  const int bits = image.depth() == CV_8U ? 8 : image.depth() == CV_16U ? 16 : 32;
  const int channels = image.channels();
  const char* kind = channels == 1 ? "grey" : channels == 2 ? "grey+alpha"
                     : channels == 3 ? "colour" : "colour+alpha";
  return std::to_string(bits) + "-bit " + kind;
}

std::string directory_of(const std::string& path) {
  const fs::path dir = fs::path(path).parent_path();
  return dir.empty() ? std::string(".") : dir.string();
}

// Reads and decodes one capture into `image` with the caller's scratch
// memory: the tool's own decoder for plain 8-bit grey files, OpenCV's for
// every other file, which also gives the verdict on damaged ones.
void read_grey_png_into(const std::string& path, GreyPngDecoder& decoder,
                        std::vector<unsigned char>& bytes, cv::Mat& image) {
  read_file_bytes(path, bytes);
  if (!has_png_signature(bytes)) throw file_error(path, "not a PNG file");
  if (decoder.decode(bytes.data(), bytes.size(), image)) return;
  image = decode_png_quietly(bytes);
  if (image.empty()) throw file_error(path, "corrupt or truncated PNG");
  if (image.type() != CV_8UC1) {
    throw file_error(path, "is " + describe_pixel_type(image) +
                               "; captures must be 8-bit single-channel grey PNGs");
  }
}

}  // namespace

cv::Mat read_grey_png(const std::string& path) {
  GreyPngDecoder decoder;
  std::vector<unsigned char> bytes;
  cv::Mat image;
  read_grey_png_into(path, decoder, bytes, image);
  return image;
}

std::string yaml_problem(const std::string& reader_error) {
  if (reader_error.rfind("line ", 0) != 0) return reader_error;
  return "not a valid YAML file: " + reader_error;
}

std::vector<cv::Mat> read_grey_pngs(const std::vector<std::string>& paths, int threads,
                                    std::vector<std::exception_ptr>& errors) {
  std::vector<cv::Mat> images(paths.size());
  errors.assign(paths.size(), nullptr);
  if (paths.empty()) return images;
  GreyPngDecoder first_decoder;
  std::vector<unsigned char> first_bytes;
  try {
    read_grey_png_into(paths[0], first_decoder, first_bytes, images[0]);
  } catch (...) {
    errors[0] = std::current_exception();
  }
  // The other images are expected at the first one's size: decoded in place
  // into one block, whose fresh memory is asked for in huge pages.
  if (!images[0].empty() && paths.size() > 1) {
    const int rows = images[0].rows;
    cv::Mat block(rows * static_cast<int>(paths.size() - 1), images[0].cols, CV_8UC1);
    advise_huge_pages(block.data, block.total());
    for (std::size_t i = 1; i < paths.size(); ++i) {
      images[i] = block.rowRange(rows * static_cast<int>(i - 1), rows * static_cast<int>(i));
    }
  }
  std::atomic<std::size_t> next{1};
  const auto work = [&] {
    GreyPngDecoder decoder;
    std::vector<unsigned char> bytes;
    for (std::size_t i = next++; i < paths.size(); i = next++) {
      try {
        read_grey_png_into(paths[i], decoder, bytes, images[i]);
      } catch (...) {
        errors[i] = std::current_exception();
      }
    }
  };
  std::vector<std::thread> workers;
  for (int t = 1; t < threads && static_cast<std::size_t>(t) < paths.size() - 1; ++t) {
    try {
      workers.emplace_back(work);
    } catch (const std::system_error&) {
      break;  // the calling thread does the rest
    }
  }
  work();
  for (std::thread& worker : workers) worker.join();
  return images;
}

cv::FileStorage open_yaml(const std::string& path) {
  cv::FileStorage storage;
  std::string error;
  if (!open_yaml_storage(path, storage, &error)) throw file_error(path, yaml_problem(error));
  return storage;
}

std::array<double, 16> read_q_matrix(const std::string& path) {
  cv::FileStorage storage = open_yaml(path);
  const cv::FileNode node = storage["Q"];
  if (node.empty()) throw file_error(path, "no matrix under the key \"Q\"");
  cv::Mat q;
  try {
    node >> q;
  } catch (const cv::Exception&) {
    q.release();
  }
  if (q.empty()) {
    throw file_error(path, "\"Q\" is not a matrix (expected !!opencv-matrix, 4x4)");
  }
  if (q.rows != 4 || q.cols != 4 || q.channels() != 1) {
    throw file_error(path, "\"Q\" is " + std::to_string(q.rows) + "x" + std::to_string(q.cols) +
                               (q.channels() == 1 ? "" : " multi-channel") + ", expected 4x4");
  }
  cv::Mat q64;
  q.convertTo(q64, CV_64F);
  std::array<double, 16> out{};
  for (int i = 0; i < 16; ++i) {
    out[i] = q64.at<double>(i / 4, i % 4);
    if (!std::isfinite(out[i])) throw file_error(path, "\"Q\" has a non-finite entry");
  }
  return out;
}

std::string q_matrix_yaml(const std::array<double, 16>& q) {
  cv::FileStorage storage(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  storage << "Q" << cv::Mat(4, 4, CV_64F, const_cast<double*>(q.data()));
  return storage.releaseAndGetString();
}

std::vector<unsigned char> encode_png(const cv::Mat& image, const std::string& path_for_errors) {
  std::vector<unsigned char> bytes;
  if (!detail::encode_image(".png", image, bytes) || bytes.empty()) {
    throw file_error(path_for_errors, "cannot encode the image as PNG");
  }
  return bytes;
}

namespace {

// The directory that will hold `path` must exist and be writable.
void check_parent_writable(const std::string& path) {
  std::error_code ec;
  const std::string dir = directory_of(path);
  if (!fs::exists(dir, ec)) throw file_error(path, "directory '" + dir + "' does not exist");
  if (!fs::is_directory(dir, ec)) throw file_error(path, "'" + dir + "' is not a directory");
  if (::access(dir.c_str(), W_OK) != 0) {
    throw file_error(path, "directory '" + dir + "' is not writable");
  }
}

}  // namespace

void check_output_path(const std::string& path) {
  if (path.empty()) throw CliError("empty output path");
  if (fs::path(path).filename().empty()) throw file_error(path, "output path has no file name");
  std::error_code ec;
  if (fs::is_directory(path, ec)) throw file_error(path, "is a directory");
  if (is_special_node(path)) return;  // written through, the directory stays as it is
  check_parent_writable(path);
}

std::string without_trailing_slashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

void check_output_directory_path(const std::string& dir) {
  if (dir.empty()) throw CliError("empty output directory");
  std::error_code ec;
  if (fs::exists(dir, ec) && !fs::is_directory(dir, ec)) {
    throw file_error(dir, "exists and is not a directory");
  }
  check_parent_writable(without_trailing_slashes(dir));
}

void prepare_output_directory(const std::string& dir) {
  if (dir.empty()) throw CliError("empty output directory");
  std::error_code ec;
  if (fs::exists(dir, ec) && !fs::is_directory(dir, ec)) {
    throw file_error(dir, "exists and is not a directory");
  }
  fs::create_directories(dir, ec);
  if (ec) throw file_error(dir, "cannot create directory: " + ec.message());
  if (::access(dir.c_str(), W_OK) != 0) throw file_error(dir, "directory is not writable");
}

void check_input_directory(const std::string& dir) {
  std::error_code ec;
  if (!fs::exists(dir, ec)) throw file_error(dir, "no such directory");
  if (!fs::is_directory(dir, ec)) throw file_error(dir, "not a directory");
}

namespace {

// The file a write to `path` must replace: the target of a symbolic link,
// so the link survives; `path` itself otherwise.
std::string replacement_target(const std::string& path) {
  std::error_code ec;
  if (!fs::is_symlink(fs::symlink_status(path, ec))) return path;
  const fs::path target = fs::canonical(path, ec);
  if (ec) throw file_error(path, "is a symbolic link to nothing");
  return target.string();
}

}  // namespace

PendingFile::PendingFile(std::string final_path) : final_path_(std::move(final_path)) {
  static int count = 0;
  const std::string suffix = ".tmp" + std::to_string(::getpid()) + "_" + std::to_string(count++);
  if (is_special_node(final_path_)) {
    // Made whole in the temporary directory, then copied through at commit.
    write_through_ = true;
    target_path_ = final_path_;
    temp_path_ = (fs::temp_directory_path() / ("sl3d_output" + suffix)).string();
    return;
  }
  target_path_ = replacement_target(final_path_);
  temp_path_ = target_path_ + suffix;
}

PendingFile::PendingFile(PendingFile&& other) noexcept
    : final_path_(std::move(other.final_path_)),
      temp_path_(std::move(other.temp_path_)),
      target_path_(std::move(other.target_path_)),
      write_through_(other.write_through_),
      committed_(other.committed_) {
  other.temp_path_.clear();
  other.committed_ = true;
}

PendingFile::~PendingFile() {
  if (!committed_ && !temp_path_.empty()) std::remove(temp_path_.c_str());
}


void PendingFile::write(const void* data, std::size_t size) {
  std::FILE* f = std::fopen(temp_path_.c_str(), "wb");
  if (f == nullptr) throw file_error(final_path_, "cannot create: " + errno_text());
  if (std::fwrite(data, 1, size, f) != size) {
    const std::string reason = errno_text();
    std::fclose(f);
    throw file_error(final_path_, "write failed: " + reason);
  }
  // Buffered data reaches the disk only at close, where a full disk shows.
  if (std::fclose(f) != 0) throw file_error(final_path_, "write failed: " + errno_text());
}

namespace {

void copy_file_into(const std::string& from, const std::string& to) {
  std::ifstream in(from, std::ios::binary);
  std::FILE* out = std::fopen(to.c_str(), "wb");
  if (!in || out == nullptr) {
    if (out != nullptr) std::fclose(out);
    throw file_error(to, "cannot open for writing: " + errno_text());
  }
  char buffer[1 << 16];
  bool ok = true;
  while (ok && in.read(buffer, sizeof buffer).gcount() > 0) {
    const std::size_t n = static_cast<std::size_t>(in.gcount());
    ok = std::fwrite(buffer, 1, n, out) == n;
  }
  const std::string reason = errno_text();
  if (std::fclose(out) != 0 || !ok) throw file_error(to, "write failed: " + reason);
}

}  // namespace

void PendingFile::commit() {
  if (write_through_) {
    copy_file_into(temp_path_, target_path_);
    std::remove(temp_path_.c_str());
    committed_ = true;
    return;
  }
  if (std::rename(temp_path_.c_str(), target_path_.c_str()) != 0) {
    throw file_error(final_path_, "cannot move into place: " + errno_text());
  }
  committed_ = true;
}

void commit_all(std::vector<PendingFile>& files) {
  for (PendingFile& file : files) file.commit();
}

PendingDirectory::PendingDirectory(std::string final_path)
    : final_path_(without_trailing_slashes(std::move(final_path))),
      temp_path_(final_path_ + ".tmp" + std::to_string(::getpid())) {
  std::error_code ec;
  fs::remove_all(temp_path_, ec);
  if (!fs::create_directory(temp_path_, ec)) {
    throw file_error(final_path_, "cannot create directory: " + ec.message());
  }
}

PendingDirectory::~PendingDirectory() {
  std::error_code ec;
  if (!committed_) fs::remove_all(temp_path_, ec);
}

void PendingDirectory::commit() {
  std::error_code ec;
  if (!fs::exists(final_path_, ec)) {
    fs::rename(temp_path_, final_path_, ec);
    if (ec) throw file_error(final_path_, "cannot move into place: " + ec.message());
    committed_ = true;
    return;
  }
  // Only the files made here are replaced; whatever else the directory
  // holds is the user's.
  for (const fs::directory_entry& entry : fs::directory_iterator(temp_path_)) {
    const fs::path target = fs::path(final_path_) / entry.path().filename();
    fs::rename(entry.path(), target, ec);
    if (ec) throw file_error(target.string(), "cannot move into place: " + ec.message());
  }
  committed_ = true;
  fs::remove_all(temp_path_, ec);
}

}  // namespace sl3d
