#include <sl3d/camera/yaml_reader.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include <sl3d/camera/camera_distort.h>

namespace {

struct Case {
  std::string text;
  const char* error;  // null: accepted
};

TEST(YamlReaderTest, AcceptsTheSubsetAndRefusesTheRestWithTheLine) {
  const std::string nul("a: 1\nb:\0 3\n", 11);
  const Case cases[] = {
      {"", nullptr},
      {"%YAML:1.0\n---\n# comment\nk: 1 # trailing\n...\n", nullptr},
      {"%YAML 1.2\nm: !!opencv-matrix\n   rows: 1\n   cols: 3\n   dt: d\n   data: [ 1., -2e-3,\n      .5 ]\n",
       nullptr},
      {"size:\n  - 640\n  - 512\nname: \"a b\"\nword: cam0\n", nullptr},
      {nul, "line 2: NUL byte"},
      {"%YAML:1.0\n---%YAML1:0\n-.--\ncam0_size: [ %8,\ncam1", "line 2: expected 'key: value'"},
      {"- 1\n- 2\n", "line 1: expected 'key: value', found a sequence entry"},
      {"just a scalar\n", "line 1: expected 'key: value'"},
      {"{\"a\": 1}\n", "line 1: flow maps ({...}) and JSON are not supported"},
      {"a: 1\na: 2\n", "line 2: 'a' given twice"},
      {"a: [1, 2\n", "line 1: unclosed '['"},
      {"a: [1, [2]]\n", "nested collections"},
      {"a:\n\tb: 1\n", "line 2: tab in the indentation"},
      {"a: 1\n  b: 2\n", "line 2: unexpected indentation"},
      {"a:\nb: 1\n", "line 1: 'a' has no value"},
      {"a: &x 1\n", "anchors"},
      {"%TAG ! x\na: 1\n", "unsupported directive"},
      {"a: 1\n---\nb: 2\n", "second document"},
      {"a: \"unclosed\n", "unclosed quote"},
      {"a: 1\x01\n", "control character"},
      {"m: !!opencv-matrix\n  rows: ...4\n  cols: 1\n  dt: d\n  data: [1]\n", "line 2: '...4'"},
      {"m: !!opencv-matrix\n  rows: 2\n  cols: 2\n  dt: d\n  data: [1]\n", "2 x 2 does not match"},
      {"m: !!other\n  rows: 1\n  cols: 1\n  dt: d\n  data: [1]\n", "line 1: unsupported tag"},
      {"m:\n  rows: Z3\n  cols: 1\n  dt: d\n  data: [1]\n", "a matrix needs integer rows"},
      {"m: !!opencv-matrix\n  rows: 1\n  cols: 1\n  dt: 3d\n  data: [1, 2, 3]\n", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.c_str());
    sl3d::YamlNode root;
    std::string error;
    EXPECT_EQ(sl3d::parse_yaml(c.text, root, error), c.error == nullptr) << error;
    if (c.error != nullptr) EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

TEST(YamlReaderTest, NestingIsBounded) {
  std::string deep;
  for (int level = 0; level < 40; ++level) deep += std::string(2 * level, ' ') + "k:\n";
  deep += std::string(80, ' ') + "v: 1\n";
  sl3d::YamlNode root;
  std::string error;
  EXPECT_FALSE(sl3d::parse_yaml(deep, root, error));
  EXPECT_NE(error.find("deeper than 16"), std::string::npos) << error;
}

TEST(YamlReaderTest, ScalarsKeepTheirKind) {
  sl3d::YamlNode root;
  std::string error;
  ASSERT_TRUE(sl3d::parse_yaml("i: -12\nr: 1.5e3\nn: .NaN\ns: \"12\"\nw: d\n", root, error));
  EXPECT_TRUE(root.find("i")->is_integer());
  EXPECT_TRUE(root.find("r")->is_number());
  EXPECT_FALSE(root.find("r")->is_integer());
  EXPECT_TRUE(root.find("n")->is_number());
  EXPECT_FALSE(root.find("s")->is_number());  // quoted: a string
  EXPECT_EQ(root.find("s")->text, "12");
  EXPECT_FALSE(root.find("w")->is_number());
  EXPECT_EQ(root.find("missing"), nullptr);
}

std::string temp_path(const char* name) {
  return ::testing::TempDir() + "yaml_reader_test_" + name;
}

// What OpenCV reads through the reader is what OpenCV wrote, bit for bit.
TEST(YamlReaderTest, StorageReadsACameraFileAsWritten) {
  DistortCamera cam(cv::Size(640, 512), "cam0");
  cam.K = (cv::Mat_<double>(3, 3) << 700.123456789, 0, 320.5, 0, 701.987654321, 255.25, 0, 0, 1);
  cam.D = (cv::Mat_<double>(1, 5) << -0.12, 0.08, 1e-4, -2e-4, 0.0);
  cam.compose();
  const std::string path = temp_path("cam0_param.yaml");
  {
    cv::FileStorage out(path, cv::FileStorage::WRITE);
    ASSERT_TRUE(cam.save(&out));
  }
  cv::FileStorage in;
  std::string error;
  ASSERT_TRUE(sl3d::open_yaml_storage(path, in, &error)) << error;
  DistortCamera back(cv::Size(0, 0), "cam0");
  ASSERT_TRUE(back.load(&in));
  EXPECT_EQ(back.size, cam.size);
  EXPECT_EQ(cv::norm(back.P, cam.P, cv::NORM_INF), 0.0);
  EXPECT_EQ(cv::norm(back.D, cam.D, cv::NORM_INF), 0.0);
  std::remove(path.c_str());
}

TEST(YamlReaderTest, FilesThatCannotBeReadAreNamedProblems) {
  const std::string big = temp_path("big.yaml");
  {
    std::ofstream out(big);
    out << "a: 1\n" << std::string(sl3d::kMaxYamlBytes, '#');
  }
  const struct {
    std::string path;
    const char* error;
  } cases[] = {{temp_path("missing.yaml"), "no such file"},
               {::testing::TempDir(), "not a regular file"},
               {big, "larger than 1 MiB"}};
  for (const auto& c : cases) {
    cv::FileStorage storage;
    std::string error;
    EXPECT_FALSE(sl3d::open_yaml_storage(c.path, storage, &error)) << c.path;
    EXPECT_FALSE(storage.isOpened());
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
  std::remove(big.c_str());
}

}  // namespace
