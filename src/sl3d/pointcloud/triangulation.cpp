#include <sl3d/pointcloud/triangulation.h>

#include <cfloat>
#include <cmath>

#include <opencv2/core.hpp>

#include <sl3d/camera/stereo_camera.h>

// The loops below are written so that the compiler can run several records
// side by side in vector registers; the clones pick the widest vectors the
// processor has at run time. Every lane does the same IEEE operations in
// the same order, so all clones give identical results.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define SL3D_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define SL3D_VECTOR_CLONES
#endif

namespace sl3d {
namespace detail {

RayGeometry ray_geometry(const StereoCamera& pair) {
  RayGeometry g{};
  for (int c = 0; c < 2; ++c) {
    const PinHoleCamera& camera = pair.cameras[c];
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 3; ++k) g.p_inv[c][r][k] = camera.P_inv(r, k);
    // The centre as the per-point route converts it (a 3x1 or 1x3 view).
    const cv::Vec3d centre(camera.get_center());
    for (int k = 0; k < 3; ++k) g.centre[c][k] = centre[k];
  }
  const cv::Vec3d baseline(cv::Mat(pair.camdis));
  for (int k = 0; k < 3; ++k) g.baseline[k] = baseline[k];
  return g;
}

ProjectionGeometry projection_geometry(const StereoCamera& pair) {
  ProjectionGeometry g{};
  for (int c = 0; c < 2; ++c)
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 4; ++k) g.p[c][r][k] = pair.cameras[c].P(r, k);
  return g;
}

namespace {

// get_sight_vector: the first three rows of P_inv * (u, v, 1, 0), scaled to
// unit length, or 0 for a zero direction.
inline void sight_vector(const double (&m)[3][3], double u, double v, double (&s)[3]) {
  for (int r = 0; r < 3; ++r) s[r] = m[r][0] * u + m[r][1] * v + m[r][2];
  const double n = std::sqrt(s[0] * s[0] + s[1] * s[1] + s[2] * s[2]);
  // Both sides computed, then chosen: no branch in the loop.
  const double reciprocal = 1.0 / n;
  const double scale = n == 0.0 ? 0.0 : reciprocal;
  for (double& c : s) c = c * scale;
}

// position_from_sv: the midpoint of the closest approach of the rays
// centre0 + t1 * s0 and centre1 + t2 * s1, with the baseline taken from
// camdis. Parallel rays (s0 . s1 == 1 exactly) give no point.
// The kernels take every array as a restrict parameter: that, and not
// restrict locals, tells the compiler the outputs overlap nothing it reads.
SL3D_VECTOR_CLONES
void rays_kernel(const RayGeometry& __restrict g, const double* __restrict xs,
                 const double* __restrict ys, const double* __restrict ds, int n,
                 double* __restrict X, double* __restrict Y, double* __restrict Z,
                 double* __restrict ok) {
  for (int i = 0; i < n; ++i) {
    const double x = xs[i], y = ys[i], d = ds[i];
    double s1[3], s0[3];
    sight_vector(g.p_inv[1], x - d, y, s1);
    sight_vector(g.p_inv[0], x, y, s0);
    const double k = s0[0] * s1[0] + s0[1] * s1[1] + s0[2] * s1[2];
    const double D = 1.0 / (1.0 - k * k);
    const double a = g.baseline[0] * s0[0] + g.baseline[1] * s0[1] + g.baseline[2] * s0[2];
    const double b = g.baseline[0] * s1[0] + g.baseline[1] * s1[1] + g.baseline[2] * s1[2];
    const double t1 = (a - b * k) * D;
    const double t2 = (a * k - b) * D;
    double gap = 0.0;
    double mid[3];
    for (int c = 0; c < 3; ++c) {
      const double p1 = g.centre[0][c] + t1 * s0[c];
      const double p2 = g.centre[1][c] + t2 * s1[c];
      gap += (p1 - p2) * (p1 - p2);
      mid[c] = (p1 + p2) * 0.5;
    }
    X[i] = mid[0];
    Y[i] = mid[1];
    Z[i] = mid[2];
    const double root = std::sqrt(gap);
    const double dist = k == 1.0 ? DBL_MAX : root;
    ok[i] = dist > 1e-8 ? 0.0 : 1.0;
  }
}

// get3dposition_P: the linear least-squares point of the four equations
// u P(2,.) - P(0,.), v P(2,.) - P(1,.) of both cameras, X = N^-1 A^T b with
// N = A^T A; no point when det(N) is exactly 0. N^-1 is the adjugate over
// the determinant, as OpenCV inverts 3x3 matrices.
SL3D_VECTOR_CLONES
void least_squares_kernel(const ProjectionGeometry& __restrict g, const double* __restrict xs,
                          const double* __restrict ys, const double* __restrict ds, int n,
                          double* __restrict X, double* __restrict Y, double* __restrict Z,
                          double* __restrict ok) {
  // Each line below is one entry of get3dposition_P's computation, spelt
  // out in scalars so that the loop runs on vectors.
  const double(&P0)[3][4] = g.p[0];
  const double(&P1)[3][4] = g.p[1];
  for (int i = 0; i < n; ++i) {
    const double u = xs[i], v = ys[i], u1 = xs[i] - ds[i];
    // A: u P0(2,.) - P0(0,.), v P0(2,.) - P0(1,.), u' P1(2,.) - P1(0,.),
    // v P1(2,.) - P1(1,.), columns 0..2; b: the same rows' column 3, negated.
    const double a00 = u * P0[2][0] - P0[0][0], a01 = u * P0[2][1] - P0[0][1],
                 a02 = u * P0[2][2] - P0[0][2];
    const double a10 = v * P0[2][0] - P0[1][0], a11 = v * P0[2][1] - P0[1][1],
                 a12 = v * P0[2][2] - P0[1][2];
    const double a20 = u1 * P1[2][0] - P1[0][0], a21 = u1 * P1[2][1] - P1[0][1],
                 a22 = u1 * P1[2][2] - P1[0][2];
    const double a30 = v * P1[2][0] - P1[1][0], a31 = v * P1[2][1] - P1[1][1],
                 a32 = v * P1[2][2] - P1[1][2];
    const double b0 = P0[0][3] - u * P0[2][3], b1 = P0[1][3] - v * P0[2][3];
    const double b2 = P1[0][3] - u1 * P1[2][3], b3 = P1[1][3] - v * P1[2][3];
    // N = A^T A is symmetric: N(c, r) is the same sum of products as N(r, c).
    const double n00 = a00 * a00 + a10 * a10 + a20 * a20 + a30 * a30;
    const double n01 = a00 * a01 + a10 * a11 + a20 * a21 + a30 * a31;
    const double n02 = a00 * a02 + a10 * a12 + a20 * a22 + a30 * a32;
    const double n11 = a01 * a01 + a11 * a11 + a21 * a21 + a31 * a31;
    const double n12 = a01 * a02 + a11 * a12 + a21 * a22 + a31 * a32;
    const double n22 = a02 * a02 + a12 * a12 + a22 * a22 + a32 * a32;
    const double c0 = a00 * b0 + a10 * b1 + a20 * b2 + a30 * b3;
    const double c1 = a01 * b0 + a11 * b1 + a21 * b2 + a31 * b3;
    const double c2 = a02 * b0 + a12 * b1 + a22 * b2 + a32 * b3;
    const double det = n00 * (n11 * n22 - n12 * n12) - n01 * (n01 * n22 - n12 * n02) +
                       n02 * (n01 * n12 - n11 * n02);
    ok[i] = det != 0.0 ? 1.0 : 0.0;
    const double inv = 1.0 / det;  // unused where det is 0
    // The adjugate, symmetric too.
    const double j00 = n11 * n22 - n12 * n12;
    const double j01 = n02 * n12 - n01 * n22;
    const double j02 = n01 * n12 - n02 * n11;
    const double j11 = n00 * n22 - n02 * n02;
    const double j12 = n02 * n01 - n00 * n12;
    const double j22 = n00 * n11 - n01 * n01;
    X[i] = (j00 * inv) * c0 + (j01 * inv) * c1 + (j02 * inv) * c2;
    Y[i] = (j01 * inv) * c0 + (j11 * inv) * c1 + (j12 * inv) * c2;
    Z[i] = (j02 * inv) * c0 + (j12 * inv) * c1 + (j22 * inv) * c2;
  }
}

}  // namespace

void triangulate_rays(const RayGeometry& g, const RecordColumns& in, int n,
                      const PositionColumns& out) {
  rays_kernel(g, in.x, in.y, in.d, n, out.X, out.Y, out.Z, out.ok);
}

void triangulate_least_squares(const ProjectionGeometry& g, const RecordColumns& in, int n,
                               const PositionColumns& out) {
  least_squares_kernel(g, in.x, in.y, in.d, n, out.X, out.Y, out.Z, out.ok);
}

}  // namespace detail
}  // namespace sl3d
