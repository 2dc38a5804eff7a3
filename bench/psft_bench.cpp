// Phase-shift generator: intake (26 setpict), exec and genPC at two sizes,
// the matcher against the straightforward scan, and peak memory of a whole
// measurement against the planes the generator must hold. All on one thread.

#include <benchmark/benchmark.h>

#include <malloc.h>

#include <fstream>
#include <string>

#include <sl3d/psft/psft.h>

#include "bench_captures.h"
#include "support/reference_phase_match.h"

namespace sl3d {
namespace bench {
namespace {

PhaseShift* loaded_generator(const Captures& c, int width, int height) {
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  gen->init(width, height);
  gen->set_camera_params(c.truth.q.data());
  for (int camera = 0; camera < 2; ++camera) {
    for (int i = 0; i < 13; ++i) {
      const cv::Mat& f = c.phase_shift[camera][i];
      gen->setpict(f.data, f.step, camera, i);
    }
  }
  return gen;
}

void BM_PhaseShiftIntake(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  const Captures& c = captures(w, h);
  PhaseShift* gen = loaded_generator(c, w, h);
  for (auto _ : state) {
    for (int camera = 0; camera < 2; ++camera) {
      for (int i = 0; i < 13; ++i) {
        const cv::Mat& f = c.phase_shift[camera][i];
        gen->setpict(f.data, f.step, camera, i);
      }
    }
  }
  gen->destroy();
}

void BM_PhaseShiftExec(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  PhaseShift* gen = loaded_generator(captures(w, h), w, h);
  for (auto _ : state) benchmark::DoNotOptimize(gen->exec());
  state.counters["records"] = gen->get_disparity_cnt();
  gen->destroy();
}

void BM_PhaseShiftGenPC(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  PhaseShift* gen = loaded_generator(captures(w, h), w, h);
  gen->exec();
  gen->verbose = 0;
  for (auto _ : state) benchmark::DoNotOptimize(gen->genPC(0));
  state.counters["points"] = gen->get_pointcloud_cnt();
  gen->destroy();
}

// The matching step alone: the library's matcher, and the plain scan over
// every candidate column, on the decoded planes of a rendered capture.
testing::MatchState decoded_state(int w, int h) {
  PhaseShift* gen = loaded_generator(captures(w, h), w, h);
  testing::MatchState st = testing::decode_for_matching(*gen);
  gen->destroy();
  return st;
}

void BM_PhaseMatchLibrary(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  const testing::MatchState start = decoded_state(w, h);
  auto* gen = static_cast<PhaseShift*>(createPointCloudGenerator(0));
  gen->init(w, h);
  for (auto _ : state) {
    state.PauseTiming();
    testing::load_for_matching(*gen, start);
    state.ResumeTiming();
    benchmark::DoNotOptimize(gen->make_disparity_data());
  }
  gen->destroy();
}

void BM_PhaseMatchPlainScan(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  const testing::MatchState start = decoded_state(w, h);
  PhaseShiftParams params;
  for (auto _ : state) {
    state.PauseTiming();
    testing::MatchState st = start;
    state.ResumeTiming();
    testing::reference_match(params, st);
    benchmark::DoNotOptimize(st.records.data());
  }
}

long resident_kb() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// Memory of a whole measurement (init, intake, exec, genPC) against the
// planes the generator must hold. Every plane stays allocated until
// destroy(), and exec/genPC allocate only small per-row scratch, so the
// resident growth at the end is the peak (pages of the output buffers
// beyond the last point or record are never touched and do not count; the
// planes come in huge pages, so a partly used one counts whole). Per pixel:
// 52 bytes of output buffers (point 16, range grid 4, disparity record 32)
// and 56 of phase-shift planes (per camera 15 one-byte planes and the 8-byte
// phase; disparity map 8; threshold and match flags 1 each).
void BM_PhaseShiftPeakMemory(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  const Captures& c = captures(w, h);
  const double pixels = double(w) * h;
  const double planes_mb = pixels * (52 + 56) / (1024.0 * 1024.0);
  double used_mb = 0.0;
  // Large blocks straight from and back to the system, so that resident
  // growth shows this measurement's memory and not recycled heap.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  malloc_trim(0);
  for (auto _ : state) {
    const long before = resident_kb();
    PhaseShift* gen = loaded_generator(c, w, h);
    gen->exec();
    gen->verbose = 0;
    gen->genPC(0);
    used_mb = (resident_kb() - before) / 1024.0;
    gen->destroy();
  }
  state.counters["used_MB"] = used_mb;
  state.counters["planes_MB"] = planes_mb;
}

#define SL3D_SIZES Args({1280, 1024})->Args({1920, 1200})
BENCHMARK(BM_PhaseShiftIntake)->SL3D_SIZES->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PhaseShiftExec)->SL3D_SIZES->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PhaseShiftGenPC)->SL3D_SIZES->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PhaseMatchLibrary)->Args({1920, 1200})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PhaseMatchPlainScan)->Args({1920, 1200})->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_PhaseShiftPeakMemory)->SL3D_SIZES->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
}  // namespace bench
}  // namespace sl3d
