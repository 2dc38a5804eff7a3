// The speed goals, each measured as the ratio (or whole-process figure) it
// is stated in, within one run of this program:
//
//   exec, 1920x1200, one thread        <= 0.075 x the plain matching scan
//   exec with two threads              >= 1.7 x as fast as with one
//   genPC modes 1 and 2, 1280x1024     <= 3 x mode 0
//   block matching exec, 1280x1024     <= 1.05 x OpenCV's matcher alone
//   `sl3d scan --method phaseshift --q`, 1280x1024, whole process:
//                                      <= 400 ms wall, <= 15 000 page faults
//
// Each compares the fastest of a few alternating runs (see goals.h).

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <opencv2/calib3d.hpp>

#include <sl3d/pointcloud/threads.h>
#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>
#include <sl3d/sim/sim_calibration.h>

#include "bench_captures.h"
#include "goals.h"
#include "support/reference_phase_match.h"

extern char** environ;

namespace sl3d {
namespace bench {

std::vector<GoalResult>& goal_results() {
  static std::vector<GoalResult> results;
  return results;
}

namespace {

namespace fs = std::filesystem;

struct Destroy {
  void operator()(iPointCloudGenerator* g) const { g->destroy(); }
};
using PhaseShiftPtr = std::unique_ptr<PhaseShift, Destroy>;

PhaseShiftPtr loaded_phase_shift(const std::vector<cv::Mat> (&frames)[2], const double* q) {
  const cv::Size size = frames[0][0].size();
  PhaseShiftPtr gen(static_cast<PhaseShift*>(createPointCloudGenerator(0)));
  gen->verbose = 0;
  gen->init(size.width, size.height);
  if (q != nullptr) gen->set_camera_params(q);
  for (int camera = 0; camera < 2; ++camera) {
    for (int i = 0; i < 13; ++i) {
      const cv::Mat& f = frames[camera][i];
      gen->setpict(f.data, f.step, camera, i);
    }
  }
  return gen;
}

std::string fixed(double v, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, v);
  return text;
}

void BM_Goal_ExecAgainstPlainScan(benchmark::State& state) {
  const Captures& c = captures(1920, 1200);
  set_num_threads(1);
  PhaseShiftPtr gen = loaded_phase_shift(c.phase_shift, c.truth.q.data());
  gen->exec();
  PhaseShiftPtr decoder = loaded_phase_shift(c.phase_shift, nullptr);
  const testing::MatchState start = testing::decode_for_matching(*decoder);
  const PhaseShiftParams params;
  std::pair<double, double> ms;
  for (auto _ : state) {
    testing::MatchState st = start;
    // Each round: the fastest of five execs against one scan (1.3 s or so).
    ms = fastest_alternating(
        3,
        [&] {
          double best = 1e300;
          for (int k = 0; k < 5; ++k) best = std::min(best, time_ms([&] { gen->exec(); }));
          return best;
        },
        [&] {
          st = start;  // the scan changes the state it matches
          testing::reference_match(params, st);
        });
  }
  record_goal({"PhaseShift::exec / plain matching scan, 1920x1200, 1 thread", ms.first / ms.second,
               0.075, true, fixed(ms.first, 1) + " ms / " + fixed(ms.second, 1) + " ms"});
}

// How much faster two threads of pure arithmetic run than one, right now:
// on a shared machine the other core may be busy, and then no program gets
// its 2x. Printed beside the speed-up goal to tell the two apart.
double machine_two_thread_speedup() {
  const auto spin = [] {
    volatile double x = 0.0;
    for (long i = 0; i < 20000000; ++i) x = x + 1e-9;
  };
  const auto pair = fastest_alternating(
      3, spin, [&] {
        std::thread other(spin);
        spin();
        other.join();
      });
  return 2.0 * pair.first / pair.second;
}

void BM_Goal_ExecOnTwoThreads(benchmark::State& state) {
  const Captures& c = captures(1920, 1200);
  PhaseShiftPtr gen = loaded_phase_shift(c.phase_shift, c.truth.q.data());
  gen->exec();
  std::pair<double, double> ms;
  for (auto _ : state) {
    ms = fastest_alternating(
        9,
        [&] {
          set_num_threads(1);
          gen->exec();
        },
        [&] {
          set_num_threads(2);
          gen->exec();
        });
  }
  set_num_threads(1);
  record_goal({"PhaseShift::exec speed-up, 2 threads over 1, 1920x1200", ms.first / ms.second, 1.7,
               false,
               fixed(ms.first, 1) + " ms / " + fixed(ms.second, 1) +
                   " ms; plain arithmetic gets " + fixed(machine_two_thread_speedup(), 2) +
                   "x from 2 threads on this machine now"});
}

// A raw capture through its calibration directory: modes 1 and 2 need the
// stereo model.
void BM_Goal_StereoModesAgainstQ(benchmark::State& state) {
  const SimRig rig = SimRig::scaled(1280, 1024);
  const VirtualSensor sensor(rig);
  const std::array<SimCamera, 2> cameras = default_raw_cameras(rig);
  const fs::path dir = fs::temp_directory_path() / ("sl3d_bench_calib_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  write_calibration_directory(cameras, dir.string());
  std::vector<cv::Mat> frames[2];
  for (int camera = 0; camera < 2; ++camera) {
    frames[camera] = sensor.render_phase_shift(cameras[camera]);
  }
  set_num_threads(1);
  PhaseShiftPtr gen(static_cast<PhaseShift*>(createPointCloudGenerator(0)));
  gen->verbose = 0;
  gen->init(rig.width, rig.height);
  gen->set_camera_params(dir.string().c_str());
  fs::remove_all(dir);
  for (int camera = 0; camera < 2; ++camera) {
    for (int i = 0; i < 13; ++i) {
      cv::Mat& f = frames[camera][i];
      gen->rectify(f.data, f.cols, f.rows, f.step, camera);
      gen->setpict(f.data, f.step, camera, i);
    }
  }
  gen->exec();
  double ms[3] = {1e300, 1e300, 1e300};
  for (auto _ : state) {
    for (int round = 0; round < 5; ++round) {
      for (int mode = 0; mode < 3; ++mode) {
        ms[mode] = std::min(ms[mode], time_ms([&] { gen->genPC(mode); }));
      }
    }
  }
  state.counters["points"] = gen->get_pointcloud_cnt();
  for (int mode : {1, 2}) {
    record_goal({"genPC mode " + std::to_string(mode) + " / mode 0, 1280x1024", ms[mode] / ms[0],
                 3.0, true, fixed(ms[mode], 2) + " ms / " + fixed(ms[0], 2) + " ms"});
  }
}

void BM_Goal_BlockMatchingAgainstOpenCv(benchmark::State& state) {
  const Captures& c = captures(1280, 1024);
  set_num_threads(1);
  std::unique_ptr<SGBMaching, Destroy> gen(static_cast<SGBMaching*>(createPointCloudGenerator(1)));
  gen->init(1280, 1024);
  for (int camera = 0; camera < 2; ++camera) {
    gen->setpict(c.textured[camera].data, c.textured[camera].step, camera, 0);
  }
  const SGBMParams p;
  const int bs = p.block_size;
  cv::Mat disparity;
  std::pair<double, double> ms;
  for (auto _ : state) {
    ms = fastest_alternating(
        5, [&] { gen->exec(); },
        [&] {
          // What a caller of OpenCV alone does: the same matcher, created
          // for the call, on the same images.
          cv::Ptr<cv::StereoSGBM> matcher = cv::StereoSGBM::create(
              p.min_disparity, p.num_disparities, bs, 8 * bs * bs, 32 * bs * bs, p.disp12_max_diff,
              p.pre_filter_cap, p.uniqueness_ratio, p.speckle_window_size, p.speckle_range, p.mode);
          matcher->compute(c.textured[0], c.textured[1], disparity);
        });
  }
  record_goal({"SGBMaching::exec / OpenCV's matcher, 1280x1024", ms.first / ms.second, 1.05, true,
               fixed(ms.first, 1) + " ms / " + fixed(ms.second, 1) + " ms"});
}

#ifdef SL3D_CLI_PATH
// Runs the tool; returns false when it could not be run or failed.
bool run_tool(const std::vector<std::string>& args, double& wall_ms, long& minor_faults) {
  std::vector<char*> argv;
  std::string tool = SL3D_CLI_PATH;
  argv.push_back(tool.data());
  std::vector<std::string> copies = args;
  for (std::string& a : copies) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const auto start = std::chrono::steady_clock::now();
  const int spawned = posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return false;
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid) return false;
  wall_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  minor_faults = usage.ru_minflt;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_Goal_ScanProcess(benchmark::State& state) {
  const fs::path dir = fs::temp_directory_path() / ("sl3d_bench_scan_" + std::to_string(::getpid()));
  double wall = 0.0;
  long faults = 0;
  if (!run_tool({"synth", "--out", dir.string(), "--rectified"}, wall, faults)) {
    state.SkipWithError("sl3d synth failed");
    return;
  }
  double best_wall = 1e300;
  long best_faults = 1L << 60;
  for (auto _ : state) {
    for (int round = 0; round < 5; ++round) {
      if (!run_tool({"scan", "--method", "phaseshift", "--images", dir.string(), "--q",
                     (dir / "q.yaml").string(), "-o", (dir / "scan.ply").string()},
                    wall, faults)) {
        state.SkipWithError("sl3d scan failed");
        break;
      }
      best_wall = std::min(best_wall, wall);
      best_faults = std::min(best_faults, faults);
    }
  }
  fs::remove_all(dir);
  record_goal({"sl3d scan --method phaseshift --q, 1280x1024: wall ms", best_wall, 400.0, true,
               "fastest of 5 processes, all cores"});
  record_goal({"sl3d scan --method phaseshift --q, 1280x1024: minor page faults",
               static_cast<double>(best_faults), 15000.0, true, "fewest of 5 processes"});
}
BENCHMARK(BM_Goal_ScanProcess)->Unit(benchmark::kMillisecond)->Iterations(1);
#endif

BENCHMARK(BM_Goal_ExecAgainstPlainScan)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Goal_ExecOnTwoThreads)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Goal_StereoModesAgainstQ)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Goal_BlockMatchingAgainstOpenCv)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
}  // namespace bench
}  // namespace sl3d
