// scan's exports refuse what cannot be written right, before measuring:
// a malformed depth range, a range without a preview, two outputs naming
// one file, an export into a missing directory. Nothing is left behind.

#include <gtest/gtest.h>

#include "cli_tool.h"

namespace sl3d {
namespace {

using testing::ScratchDir;
namespace fs = std::filesystem;

TEST(ScanExports, RefusedBeforeAnyOutput) {
  const ScratchDir dir("sl3d_exports_test");
  const std::string caps = (dir / "caps").string();
  const testing::ToolRun synth = dir.run(
      {"synth", "--out", caps, "--rectified", "--width", "64", "--height", "64"});
  ASSERT_EQ(synth.exit_code, 0) << synth.err;
  const fs::path out = dir / "out";
  fs::create_directories(out);
  const std::string ply = (out / "c.ply").string(), png = (out / "d.png").string();
  const struct {
    std::vector<std::string> exports;
    int code;
    std::string culprit;
  } cases[] = {
      {{"--depth-png", png, "--depth-range", "900"}, 2, "MIN:MAX"},
      {{"--depth-png", png, "--depth-range", "900:600"}, 2, "MIN below MAX"},
      {{"--depth-png", png, "--depth-range", "600:nan"}, 2, "--depth-range"},
      {{"--depth-range", "600:900"}, 2, "needs --depth-png"},
      {{"--depth-tiff", ply}, 2, "same file"},
      {{"--depth-tiff", (out / "d.tiff").string(), "--xyz-tiff", (out / "./d.tiff").string()}, 2,
       "same file"},
      {{"--xyz-tiff", (out / "missing" / "x.tiff").string()}, 1, "missing"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"scan", "--method", "phaseshift", "--images", caps, "--q",
                                     caps + "/q.yaml", "-o", ply};
    args.insert(args.end(), c.exports.begin(), c.exports.end());
    const testing::ToolRun r = dir.run(args);
    EXPECT_EQ(r.exit_code, c.code) << r.err;
    EXPECT_NE(r.err.find(c.culprit), std::string::npos) << r.err;
    EXPECT_TRUE(fs::is_empty(out)) << "output left behind for " << r.err;
  }
}

}  // namespace
}  // namespace sl3d
