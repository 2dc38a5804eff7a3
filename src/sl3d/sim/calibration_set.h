#ifndef SL3D_SIM_CALIBRATION_SET_H_
#define SL3D_SIM_CALIBRATION_SET_H_

// Calibration sets of the virtual sensor: a board photographed by both real
// cameras at several poses, with the true pose of every view.
//
// Use it to calibrate the virtual sensor the way a user calibrates a real
// one, and to compare what the calibration finds with the cameras' true
// intrinsics, distortion and relative pose.

#include <array>
#include <vector>

#include <sl3d/export.h>
#include <sl3d/sim/board_families.h>
#include <sl3d/sim/board_renderer.h>
#include <sl3d/sim/virtual_sensor.h>

namespace sl3d {

struct SL3D_EXPORT StereoBoardView {
  BoardPose world_from_board;
  std::array<BoardRendering, 2> images;  // by camera: 0 left, 1 right
};

// One pose of `layout` per orientation in `angles`, in front of both
// cameras: distances cycle through near_mm, their middle and far_mm, and the
// board's middle is aimed, from the midpoint of the two camera centres, at
// the middle of camera 0's view or towards one of its corners or edges in
// turn, so that the views together cover the image. An aim that would put
// part of the board outside either image is pulled towards the middle until
// the whole board is seen by both.
SL3D_EXPORT std::vector<BoardPose> calibration_poses(const std::array<SimCamera, 2>& cameras,
                                                     const BoardLayout& layout,
                                                     const std::vector<ViewAngles>& angles,
                                                     double near_mm, double far_mm);

// Renders every pose with both cameras (supersampling 2); the noise seed
// differs per view and camera. With a `texture` (a bitmap of the board
// whose drawing is `layout`, such as the PNG a user prints) the views show
// that bitmap instead of the analytic drawing.
SL3D_EXPORT std::vector<StereoBoardView> render_calibration_set(
    const std::array<SimCamera, 2>& cameras, const BoardLayout& layout,
    const std::vector<BoardPose>& poses, const BoardImaging& imaging = BoardImaging(),
    const BoardTexture* texture = nullptr);

}  // namespace sl3d

#endif  // SL3D_SIM_CALIBRATION_SET_H_
