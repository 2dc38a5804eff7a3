// Block matching generator: exec on a rendered textured pair.

#include <benchmark/benchmark.h>

#include <sl3d/sgbm/sgbm.h>

#include "bench_captures.h"

namespace sl3d {
namespace bench {
namespace {

void BM_SgbmExec(benchmark::State& state) {
  const int w = state.range(0), h = state.range(1);
  const Captures& c = captures(w, h);
  iPointCloudGenerator* gen = createPointCloudGenerator(1);
  gen->init(w, h);
  gen->set_camera_params(c.truth.q.data());
  for (int camera = 0; camera < 2; ++camera) {
    gen->setpict(c.textured[camera].data, c.textured[camera].step, camera, 0);
  }
  for (auto _ : state) benchmark::DoNotOptimize(gen->exec());
  gen->destroy();
}

BENCHMARK(BM_SgbmExec)->Args({1280, 1024})->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
}  // namespace sl3d
