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
#define SL3D_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
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

}  // namespace

// position_from_sv: the midpoint of the closest approach of the rays
// centre0 + t1 * s0 and centre1 + t2 * s1, with the baseline taken from
// camdis. Parallel rays (s0 . s1 == 1 exactly) give no point.
SL3D_VECTOR_CLONES
void triangulate_rays(const RayGeometry& g, const double* records, int n, double* xyz,
                      unsigned char* ok) {
  for (int i = 0; i < n; ++i) {
    const double x = records[4 * i], y = records[4 * i + 1], d = records[4 * i + 2];
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
    for (int c = 0; c < 3; ++c) {
      const double p1 = g.centre[0][c] + t1 * s0[c];
      const double p2 = g.centre[1][c] + t2 * s1[c];
      gap += (p1 - p2) * (p1 - p2);
      xyz[3 * i + c] = (p1 + p2) * 0.5;
    }
    const double root = std::sqrt(gap);
    const double dist = k == 1.0 ? DBL_MAX : root;
    ok[i] = !(dist > 1e-8);
  }
}

// get3dposition_P: the linear least-squares point of the four equations
// u P(2,.) - P(0,.), v P(2,.) - P(1,.) of both cameras, X = N^-1 A^T b with
// N = A^T A; no point when det(N) is exactly 0. N^-1 is the adjugate over
// the determinant, as OpenCV inverts 3x3 matrices.
SL3D_VECTOR_CLONES
void triangulate_least_squares(const ProjectionGeometry& g, const double* records, int n,
                               double* xyz, unsigned char* ok) {
  for (int i = 0; i < n; ++i) {
    const double x = records[4 * i], y = records[4 * i + 1], d = records[4 * i + 2];
    const double u[2] = {x, x - d};
    double A[4][3], b[4];
    for (int c = 0; c < 2; ++c) {
      const double(&P)[3][4] = g.p[c];
      for (int k = 0; k < 3; ++k) {
        A[2 * c][k] = u[c] * P[2][k] - P[0][k];
        A[2 * c + 1][k] = y * P[2][k] - P[1][k];
      }
      b[2 * c] = P[0][3] - u[c] * P[2][3];
      b[2 * c + 1] = P[1][3] - y * P[2][3];
    }
    // N is symmetric, and so is its adjugate: N(c, r) and adj(c, r) are the
    // same products as N(r, c) and adj(r, c), so each pair is formed once.
    double N[3][3], Atb[3];
    for (int r = 0; r < 3; ++r) {
      for (int c = r; c < 3; ++c) {
        N[r][c] = A[0][r] * A[0][c] + A[1][r] * A[1][c] + A[2][r] * A[2][c] + A[3][r] * A[3][c];
        N[c][r] = N[r][c];
      }
      Atb[r] = A[0][r] * b[0] + A[1][r] * b[1] + A[2][r] * b[2] + A[3][r] * b[3];
    }
    const double det = N[0][0] * (N[1][1] * N[2][2] - N[1][2] * N[2][1]) -
                       N[0][1] * (N[1][0] * N[2][2] - N[1][2] * N[2][0]) +
                       N[0][2] * (N[1][0] * N[2][1] - N[1][1] * N[2][0]);
    ok[i] = det != 0.0;
    const double inv = 1.0 / det;  // unused where det is 0
    double adj[3][3];
    adj[0][0] = N[1][1] * N[2][2] - N[1][2] * N[2][1];
    adj[0][1] = N[0][2] * N[2][1] - N[0][1] * N[2][2];
    adj[0][2] = N[0][1] * N[1][2] - N[0][2] * N[1][1];
    adj[1][1] = N[0][0] * N[2][2] - N[0][2] * N[2][0];
    adj[1][2] = N[0][2] * N[1][0] - N[0][0] * N[1][2];
    adj[2][2] = N[0][0] * N[1][1] - N[0][1] * N[1][0];
    adj[1][0] = adj[0][1];
    adj[2][0] = adj[0][2];
    adj[2][1] = adj[1][2];
    for (int r = 0; r < 3; ++r) {
      xyz[3 * i + r] =
          (adj[r][0] * inv) * Atb[0] + (adj[r][1] * inv) * Atb[1] + (adj[r][2] * inv) * Atb[2];
    }
  }
}

}  // namespace detail
}  // namespace sl3d
