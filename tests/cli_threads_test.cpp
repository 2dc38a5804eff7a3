// `sl3d scan --threads N`: the same files from one thread and from several,
// for rectified and raw captures, and a refused thread count.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

int run(const std::string& args) {
  const std::string command = std::string("'") + SL3D_CLI_PATH + "' " + args + " > /dev/null 2>&1";
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(ScanThreads, OneThreadAndSeveralWriteTheSameFiles) {
  const fs::path dir = fs::temp_directory_path() / ("sl3d_threads_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  const std::string rect = (dir / "rect").string(), raw = (dir / "raw").string();
  ASSERT_EQ(run("synth --out " + rect + " --rectified --width 320 --height 256"), 0);
  ASSERT_EQ(run("synth --out " + raw + " --width 320 --height 256"), 0);
  struct Scan {
    std::string method, inputs;
  };
  for (const Scan& scan : {Scan{"phaseshift", "--images " + rect + " --q " + rect + "/q.yaml"},
                           Scan{"phaseshift", "--images " + raw + " --calib " + raw + "/calib --mode 2"},
                           Scan{"sgbm", "--images " + rect + " --q " + rect + "/q.yaml"}}) {
    std::string files[2];
    for (int threads : {1, 2}) {
      const fs::path ply = dir / ("t" + std::to_string(threads) + ".ply");
      const fs::path png = dir / ("t" + std::to_string(threads) + ".png");
      ASSERT_EQ(run("scan --method " + scan.method + " " + scan.inputs + " -o " + ply.string() +
                    " --depth-png " + png.string() + " --threads " + std::to_string(threads)),
                0)
          << scan.inputs;
      files[threads - 1] = contents(ply) + contents(png);
    }
    EXPECT_GT(files[0].size(), 1000u);
    EXPECT_EQ(files[0], files[1]) << scan.method << " " << scan.inputs;
  }
  EXPECT_EQ(run("scan --method phaseshift --images " + rect + " --q " + rect +
                "/q.yaml -o " + (dir / "x.ply").string() + " --threads -1"),
            2);
  fs::remove_all(dir);
}

}  // namespace
