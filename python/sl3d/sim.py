"""The virtual sensor: renders what a real sensor would capture of a scene
whose geometry is known, so that measuring, recognition and calibration can
be tried and checked without hardware.

VirtualSensor(width, height) is a projector between two cameras looking at
a tilted wall and a sphere (millimetres; camera 0's frame: x right, y down,
z forward). It renders the 13 phase-shift frames or a textured image per
camera, either through the ideal rectified pair (with ground_truth() giving
the true depth and the pair's Q) or, with raw=True, through two real cameras
with lens distortion (true_cameras(), write_calibration_directory(dir)).

board_views() and calibration_set() render calibration boards of either
family with the true centre and marker index of every circle, as
`sl3d synth --boards` does.
"""

import types

from . import _sl3d

__all__ = ["VirtualSensor", "board_views", "calibration_set", "calibration_error"]


class VirtualSensor(_sl3d._VirtualSensor):
    """VirtualSensor(width=1280, height=1024, focal_px=None, baseline_mm=None,
    projector_period_px=None); unset values scale the default rig.

    render_phase_shift(camera, raw=False, light=None) -> (13, H, W) uint8
    render_textured(camera, raw=False, light=None) -> (H, W) uint8
    ground_truth() -> (depth (H, W) float64, NaN off the scene; Q (4, 4))
    distance_to_scene(points (n, 3)) -> (n,) distances to the true surfaces
    true_cameras() -> the two raw cameras as DistortCameras
    write_calibration_directory(dir): their calibration directory

    `light` is a dict of ambient, projector_gain, fringe_contrast,
    blur_sigma_px, noise_sigma, seed, supersampling.
    """


def board_views(family="pellux", width=640, height=480, views=None, noise=0.0, blur=0.0):
    """Views of a 7 x 5 board (20 mm) at the poses its family is recognized
    in. Returns a namespace: images (list of (H, W) uint8), centres and
    ellipse_centres (per image, (n, 2) by rendered circle j * 7 + i),
    truth_index (n,) the marker index of each rendered circle,
    truth_position (n, 3) its board position, params (the recognizer's
    pre/marker/board dicts), params_text (the key file `sl3d detect` reads).
    """
    return types.SimpleNamespace(**_sl3d._board_views(family, width, height, views, noise, blur))


def calibration_set(family="pellux", width=640, height=512, noise=1.0, blur=0.5):
    """Twelve views of an 11 x 8 board (30 mm) by both raw cameras. Returns a
    namespace: left, right (lists of images), left_centres, right_centres,
    truth_index, truth_position, params, params_text, true_cameras,
    circle_radius (mm, as unit_length)."""
    return types.SimpleNamespace(**_sl3d._calibration_set(family, width, height, noise, blur))


def calibration_error(cameras, width, height):
    """How far two calibrated DistortCameras are from the sensor's true raw
    cameras at width x height: per camera fx, fy, cx, cy (calibrated minus
    true), pixel_rms, pixel_max; the baseline error and the rotation error
    in degrees."""
    return _sl3d._calibration_error(cameras, width, height)
