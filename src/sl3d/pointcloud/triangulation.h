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

// For n records (x, y, d, 1): pixel (x, y) of camera 0 and (x - d, y) of
// camera 1. Writes the position to xyz[3i..3i+2] and whether it exists to
// ok[i]: for rays, when the rays' gap is not above 1e-8; for least squares,
// when the normal matrix's determinant is not exactly 0.
void triangulate_rays(const RayGeometry& g, const double* records, int n, double* xyz,
                      unsigned char* ok);
void triangulate_least_squares(const ProjectionGeometry& g, const double* records, int n,
                               double* xyz, unsigned char* ok);

}  // namespace detail
}  // namespace sl3d

#endif  // SL3D_POINTCLOUD_TRIANGULATION_H_
