#ifndef SL3D_TESTS_CLI_TOOL_H_
#define SL3D_TESTS_CLI_TOOL_H_

// Running the `sl3d` tool as a separate process from a test, in a scratch
// directory of the test's own.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace sl3d {
namespace testing {

namespace fs = std::filesystem;

struct ToolRun {
  int exit_code = -1;
  std::string out;
  std::string err;
};

inline std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// A directory under the system's temporary directory, removed with the
// object; `name` keeps runs of different tests apart.
class ScratchDir {
 public:
  explicit ScratchDir(const std::string& name)
      : path_(fs::temp_directory_path() / (name + "_" + std::to_string(::getpid()))) {
    fs::remove_all(path_);
    fs::create_directories(path_ / ".logs");
  }
  ~ScratchDir() { fs::remove_all(path_); }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const fs::path& path() const { return path_; }
  fs::path operator/(const std::string& name) const { return path_ / name; }

  // Runs `sl3d ARGS...` with stdin closed; its output goes through files
  // in the directory.
  ToolRun run(const std::vector<std::string>& args) const {
    std::string command = quoted(SL3D_CLI_PATH);
    for (const std::string& arg : args) command += " " + quoted(arg);
    const fs::path out = path_ / ".logs" / "stdout", err = path_ / ".logs" / "stderr";
    command += " >" + quoted(out.string()) + " 2>" + quoted(err.string()) + " </dev/null";
    const int status = std::system(command.c_str());
    ToolRun r;
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
  }

 private:
  static std::string quoted(const std::string& s) { return "'" + s + "'"; }
  fs::path path_;
};

// A refused run: exit `code`, one line on stderr naming `culprit`, nothing on
// stdout, and `output` (a file or directory) not created.
inline void expect_refused(const ToolRun& r, int code, const std::string& culprit,
                           const fs::path& output) {
  EXPECT_EQ(r.exit_code, code) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_NE(r.err.find(culprit), std::string::npos) << "'" << culprit << "' not in: " << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(fs::exists(output)) << output << " left behind";
}

}  // namespace testing
}  // namespace sl3d

#endif  // SL3D_TESTS_CLI_TOOL_H_
