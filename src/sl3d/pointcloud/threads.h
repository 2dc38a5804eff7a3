#ifndef SL3D_POINTCLOUD_THREADS_H_
#define SL3D_POINTCLOUD_THREADS_H_

// How many threads the library may use.
//
// By default the library starts no threads: every call runs on the caller's
// thread. A program that wants a measurement faster raises the count once,
// for example to the number of cores:
//
//   sl3d::set_num_threads(0);   // all hardware threads
//
// With n > 1 threads, PhaseShift::exec (Gray-code and phase decoding, phase
// matching) and genPC (every triangulation mode) split their work by image
// rows over the calling thread and n - 1 threads started for the call and
// joined before it returns; their results are bit-identical to those of one
// thread. Block matching (SGBMaching::exec) runs OpenCV's matcher with
// OpenCV's own thread count set to n for the duration of the call and
// restored afterwards (OpenCV's default mode is sequential; its 3-way mode
// splits the image into stripes). Each generator is still used from one
// thread at a time.

#include <functional>

#include <sl3d/export.h>

namespace sl3d {

// Sets the thread count for all later calls of the library, from any
// thread. n < 1 means std::thread::hardware_concurrency() (at least 1).
SL3D_EXPORT void set_num_threads(int n);

// The count in force: 1 unless set_num_threads chose another.
SL3D_EXPORT int num_threads();

namespace detail {

// Runs body(chunk, begin, end) for `chunks` contiguous chunks that split
// [0, count) as evenly as possible (chunk k gets [k*count/chunks,
// (k+1)*count/chunks)); chunk 0 on the calling thread, the others on
// threads started here. Returns when all chunks are done; an exception of a
// chunk is rethrown (the first by chunk order). A thread that cannot be
// started leaves its chunk to the calling thread.
void run_chunks(int chunks, int count, const std::function<void(int, int, int)>& body);

// The number of chunks for `count` rows of work: num_threads(), but no more
// than count / min_rows_per_chunk (at least 1), so that short jobs stay on
// the calling thread.
int chunks_for(int count, int min_rows_per_chunk);

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_POINTCLOUD_THREADS_H_
