#include <sl3d/pointcloud/threads.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

namespace sl3d {

namespace {
std::atomic<int> g_num_threads{1};
}  // namespace

void set_num_threads(int n) {
  if (n < 1) n = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  g_num_threads.store(n, std::memory_order_relaxed);
}

int num_threads() { return g_num_threads.load(std::memory_order_relaxed); }

namespace detail {

int chunks_for(int count, int min_rows_per_chunk) {
  const int most = std::max(1, count / std::max(1, min_rows_per_chunk));
  return std::max(1, std::min(num_threads(), most));
}

void run_chunks(int chunks, int count, const std::function<void(int, int, int)>& body) {
  chunks = std::max(1, chunks);
  const auto begin_of = [&](int k) {
    return static_cast<int>(static_cast<long long>(count) * k / chunks);
  };
  std::vector<std::exception_ptr> errors(static_cast<std::size_t>(chunks));
  const auto run = [&](int k) {
    try {
      body(k, begin_of(k), begin_of(k + 1));
    } catch (...) {
      errors[static_cast<std::size_t>(k)] = std::current_exception();
    }
  };
  std::vector<std::thread> threads;
  std::vector<int> left_over;
  threads.reserve(static_cast<std::size_t>(chunks));
  left_over.reserve(static_cast<std::size_t>(chunks));
  for (int k = 1; k < chunks; ++k) {
    try {
      threads.emplace_back(run, k);
    } catch (const std::system_error&) {
      left_over.push_back(k);
    }
  }
  run(0);
  for (int k : left_over) run(k);
  for (std::thread& t : threads) t.join();
  for (const std::exception_ptr& e : errors) {
    if (e) std::rethrow_exception(e);
  }
}

}  // namespace detail
}  // namespace sl3d
