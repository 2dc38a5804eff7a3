#ifndef SL3D_POINTCLOUD_TRIANGULATION_H_
#define SL3D_POINTCLOUD_TRIANGULATION_H_

// The stereo-model triangulations of genPC modes 1 and 2 as loops over a run
// of disparity records. Each does, per record, the double arithmetic of the
// per-point camera functions it replaces (PinHoleCamera::get_sight_vector
// with StereoCamera::position_from_sv; StereoCamera::get3dposition_P), with
// the cameras' matrices read once instead of wrapped in cv::Mat temporaries
// per point. Results agree with the per-point route to rounding (the sums
// may be formed in another order), far inside 1e-9 relative.

class StereoCamera;

namespace sl3d {
namespace detail {

// What mode 1 needs of the pair: per camera the first three columns of the
// first three rows of P_inv (the fourth column multiplies the 0 of a
// direction), the camera centres and the baseline camdis.
struct RayGeometry {
  double p_inv[2][3][3];
  double centre[2][3];
  double baseline[3];
};

// What mode 2 needs: the two 3x4 projection matrices.
struct ProjectionGeometry {
  double p[2][3][4];
};

RayGeometry ray_geometry(const StereoCamera& pair);
ProjectionGeometry projection_geometry(const StereoCamera& pair);

// Columns of n records, x[i], y[i], d[i]: pixel (x, y) of camera 0 and
// (x - d, y) of camera 1. Writes the position to X[i], Y[i], Z[i] and
// whether it exists to ok[i] (1.0 or 0.0): for rays, when the rays' gap is
// not above 1e-8; for least squares, when the normal matrix's determinant
// is not exactly 0. Columns of doubles only, the flag included, so that the
// loops run on vectors of one width and without gaps.
struct RecordColumns {
  const double* x;
  const double* y;
  const double* d;
};
struct PositionColumns {
  double* X;
  double* Y;
  double* Z;
  double* ok;
};
void triangulate_rays(const RayGeometry& g, const RecordColumns& in, int n,
                      const PositionColumns& out);
void triangulate_least_squares(const ProjectionGeometry& g, const RecordColumns& in, int n,
                               const PositionColumns& out);

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_POINTCLOUD_TRIANGULATION_H_
