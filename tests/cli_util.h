#ifndef SL3D_TESTS_CLI_UTIL_H_
#define SL3D_TESTS_CLI_UTIL_H_

// Running the `sl3d` tool as a separate process from a test, and the checks
// every failure must pass: one error line naming the culprit, the exit code,
// no output left behind.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace sl3d_test {

namespace fs = std::filesystem;

struct RunResult {
  int exit_code = -1;  // -1: killed by a signal
  std::string out;
  std::string err;
};

inline std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline void write_text(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// `a` followed by `b`: a command line and its extra arguments.
inline std::vector<std::string> cat(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline std::string quoted(const std::string& s) { return "'" + s + "'"; }

// Lines of stderr that are not progress notes.
inline int error_lines(const std::string& err) {
  std::istringstream lines(err);
  int count = 0;
  for (std::string line; std::getline(lines, line);) count += line.rfind("sl3d: progress: ", 0) != 0;
  return count;
}

// A private scratch directory per test program, removed at the end.
class ToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    root_ = fs::temp_directory_path() /
            (::testing::UnitTest::GetInstance()->current_test_suite()->name() +
             std::string("_") + std::to_string(::getpid()));
    fs::remove_all(root_);
    fs::create_directories(root_ / "logs");
  }
  static void TearDownTestSuite() { fs::remove_all(root_); }

  // `prefix` runs before the tool in the same shell (e.g. "ulimit -f 64;"),
  // `launcher` starts it (e.g. "timeout 60").
  static RunResult run(const std::vector<std::string>& args, const std::string& prefix = "",
                       const std::string& launcher = "") {
    std::string command = prefix + " exec " + launcher + " " + quoted(SL3D_CLI_PATH);
    for (const std::string& arg : args) command += " " + quoted(arg);
    const fs::path out = root_ / "logs" / "stdout", err = root_ / "logs" / "stderr";
    command = "(" + command + ") >" + quoted(out.string()) + " 2>" + quoted(err.string()) +
              " </dev/null";
    const int status = std::system(command.c_str());
    RunResult r;
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
  }

  static fs::path empty_dir(const std::string& name) {
    const fs::path dir = root_ / name;
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
  }

  static void expect_clean_failure(const RunResult& r, int exit_code, const std::string& culprit,
                                   const fs::path& out_dir = "") {
    EXPECT_EQ(r.exit_code, exit_code) << r.err;
    EXPECT_EQ(error_lines(r.err), 1) << r.err;
    EXPECT_NE(r.err.find(culprit), std::string::npos) << "'" << culprit << "' not in: " << r.err;
    if (!out_dir.empty()) {
      EXPECT_TRUE(fs::is_empty(out_dir)) << "output left in " << out_dir;
    }
  }

  // A request refused before anything is written: nothing on stdout and
  // `output` (a file or directory) not created.
  static void expect_refused(const RunResult& r, int exit_code, const std::string& culprit,
                             const fs::path& output) {
    expect_clean_failure(r, exit_code, culprit);
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(fs::exists(output)) << output << " left behind";
  }

  static fs::path root_;
};

inline fs::path ToolTest::root_;

}  // namespace sl3d_test

#endif  // SL3D_TESTS_CLI_UTIL_H_
