#ifndef SL3D_CLI_IO_H_
#define SL3D_CLI_IO_H_

// File input and output of the tool. Every reader names the offending file in
// the CliError it throws. Outputs to a regular file (or a new one) are
// written under a temporary name beside it and renamed into place only when
// complete, so a failed run leaves no partial file behind; a symbolic link
// keeps pointing where it did (its target is replaced), and a device, FIFO
// or socket is written through, never replaced by a file.

#include <array>
#include <exception>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace sl3d {

// An 8-bit single-channel PNG. Colour, 16-bit and corrupt files are refused.
cv::Mat read_grey_png(const std::string& path);

// The same for many files, decoded on up to `threads` threads. Images of the
// first file's size share one block of memory. Nothing is thrown: errors[i]
// holds what reading paths[i] threw (the image is then empty), so that the
// caller can report problems in the order of the paths.
std::vector<cv::Mat> read_grey_pngs(const std::vector<std::string>& paths, int threads,
                                    std::vector<std::exception_ptr>& errors);

// Opens a YAML file for reading through the library's guarded reader
// (sl3d/camera/yaml_reader.h). Files without OpenCV's "%YAML" first line
// are accepted too, as hand-written YAML usually lacks it.
cv::FileStorage open_yaml(const std::string& path);

// The one-line reason a YAML file did not open, as the guarded reader gave
// it: "no such file", or "not a valid YAML file: line N: ...".
std::string yaml_problem(const std::string& reader_error);

// The 4x4 matrix stored under the key "Q" of a YAML file, row-major.
std::array<double, 16> read_q_matrix(const std::string& path);

// The same matrix as FileStorage YAML text (key "Q", CV_64F), ready to write.
std::string q_matrix_yaml(const std::array<double, 16>& q);

std::vector<unsigned char> encode_png(const cv::Mat& image, const std::string& path_for_errors);

// Refuses, before any work is done, an output path whose directory is
// missing or not writable, or that names a directory.
void check_output_path(const std::string& path);

// Refuses, before any work is done, an output directory that names a file
// or whose parent directory is missing or not writable. An existing
// directory keeps every file but those the tool writes into it.
void check_output_directory_path(const std::string& dir);

// "a/b/" -> "a/b"; "/" stays.
std::string without_trailing_slashes(std::string path);

// Creates `dir` (with parents) when missing and checks it is writable.
void prepare_output_directory(const std::string& dir);

// Fails unless `dir` is an existing directory.
void check_input_directory(const std::string& dir);

// An output file in the making: content goes to temp_path(); commit()
// renames it to the final path. Destroying an uncommitted file removes the
// temporary. A final path naming a device, FIFO or socket is never
// replaced: the content is made in the temporary directory and commit()
// copies it through. One naming a symbolic link replaces the link's target.
class PendingFile {
 public:
  explicit PendingFile(std::string final_path);
  PendingFile(PendingFile&& other) noexcept;
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;
  PendingFile& operator=(PendingFile&&) = delete;
  ~PendingFile();

  const std::string& final_path() const { return final_path_; }
  const std::string& temp_path() const { return temp_path_; }

  void write(const void* data, std::size_t size);
  void write(const std::vector<unsigned char>& bytes) { write(bytes.data(), bytes.size()); }
  void write(const std::string& text) { write(text.data(), text.size()); }
  void commit();

 private:
  std::string final_path_;
  std::string temp_path_;
  std::string target_path_;  // what commit() writes: the final path or a link's target
  bool write_through_ = false;
  bool committed_ = false;
};

// Renames every file into place, in order.
void commit_all(std::vector<PendingFile>& files);

// An output directory in the making, filled under a temporary name beside
// the final one. commit() renames it into place when the final directory
// does not exist, else moves its files into the existing directory one by
// one, replacing files of the same names and leaving every other file
// alone. Destroying an uncommitted directory removes the temporary.
class PendingDirectory {
 public:
  explicit PendingDirectory(std::string final_path);
  PendingDirectory(const PendingDirectory&) = delete;
  PendingDirectory& operator=(const PendingDirectory&) = delete;
  ~PendingDirectory();

  const std::string& final_path() const { return final_path_; }
  const std::string& temp_path() const { return temp_path_; }
  void commit();

 private:
  std::string final_path_;
  std::string temp_path_;
  bool committed_ = false;
};

}  // namespace sl3d

#endif  // SL3D_CLI_IO_H_
