"""sl3d: point clouds from a pattern projector and two cameras, recognition
of circle-marker calibration boards and stereo calibration; the Python
bindings of libsl3d.

A measurement, on the virtual sensor (no hardware needed)::

    import sl3d
    from sl3d import sim

    sensor = sim.VirtualSensor(640, 512)
    depth_true, q = sensor.ground_truth()
    with sl3d.Generator("phaseshift") as gen:
        gen.init(640, 512)
        gen.set_camera_params(q)          # or a calibration directory
        for camera in (0, 1):
            for index, frame in enumerate(sensor.render_phase_shift(camera)):
                gen.setpict(frame, camera, index)
        gen.exec()
        cloud = gen.genPC()
    cloud.points, cloud.grey, cloud.range_grid, cloud.depth()
    cloud.write_ply("scan.ply")

Arrays: images are 2-D uint8 arrays whose rows are contiguous in memory;
the library reads them in place. Point lists and matrices may be any real
numeric array-likes. Every array the package returns is a new array that
owns a copy of its data (nothing refers to library buffers that a later call
could change); the only exception is Generator.rectify(image, camera,
inplace=True), which returns the array it was given. Cameras taken from
StereoCamera.cameras refer to the pair and keep it alive.

Errors: wrong types raise TypeError, wrong shapes, sizes or values
ValueError, a failed library call sl3d.Error (OpenCV's errors inside the
library sl3d.OpenCVError, a failed calibration sl3d.CalibrationError),
files that cannot be read or written sl3d.FileError (an OSError).

Threads: Generator.exec and genPC, BoardRecognizer.recognize,
StereoCalib.exec and the virtual sensor's rendering release the GIL. One
generator, recognizer or calibrator serves one call at a time; calls from
other threads wait for it.

Messages: the library prints its loading and fallback messages only for a
generator whose `verbose` is set; generators made here start quiet.
"""

from collections import namedtuple

import numpy as _np

from . import _sl3d
from ._sl3d import (
    CalibrationError,
    DistortCamera,
    Error,
    FileError,
    OpenCVError,
    PinHoleCamera,
    StereoCamera,
    UndistortCamera,
    __version__,
    num_threads,
    recommended_calibration_flags,
    set_num_threads,
    store_calibration_directory,
    store_camera_files,
)

version_info = tuple(int(part) for part in __version__.split("."))

__all__ = [
    "BoardRecognizer", "CalibrationError", "CalibrationResult", "DistortCamera", "Error",
    "FileError", "Generator", "OpenCVError", "PinHoleCamera", "PointCloud",
    "PreciseCalibrationResult", "Recognition", "StereoCalib", "StereoCamera", "UndistortCamera",
    "measure_marker_centres", "num_threads", "recommended_calibration_flags",
    "set_num_threads", "store_calibration_directory", "store_camera_files", "version_info",
    "write_ply",
]


class PointCloud:
    """What genPC made: `points` (N, 3) float32, `grey` (N,) uint8 and
    `range_grid` (height, width) int32, the index of the point made from
    each pixel of camera 0, -1 where there is none. All three are copies.
    """

    __slots__ = ("points", "grey", "range_grid")

    def __init__(self, points, grey, range_grid):
        self.points = points
        self.grey = grey
        self.range_grid = range_grid

    def __len__(self):
        return len(self.points)

    def __repr__(self):
        h, w = self.range_grid.shape
        return f"PointCloud({len(self)} points, {w}x{h} grid)"

    def xyz(self):
        """(height, width, 3) float32: each pixel's point, NaN without one."""
        out = _np.full(self.range_grid.shape + (3,), _np.nan, dtype=_np.float32)
        has_point = self.range_grid >= 0
        out[has_point] = self.points[self.range_grid[has_point]]
        return out

    def depth(self):
        """(height, width) float32: each pixel's z, NaN without a point."""
        return self.xyz()[..., 2]

    def write_ply(self, path, range_grid=True):
        """Writes a binary little-endian PLY file, with the range grid unless
        `range_grid` is False: byte for byte what `sl3d scan` writes."""
        write_ply(path, self.points, self.grey, self.range_grid if range_grid else None)


def write_ply(path, points, grey=None, range_grid=None):
    """Writes points (N, 3), their grey values (N,) uint8 (white if None) and
    optionally a range grid (height, width) of point indices and -1 as binary
    PLY. Raises FileError when the file was not written completely."""
    _sl3d._write_ply(path, points, grey, range_grid)


class Generator(_sl3d.Generator):
    """A point-cloud generator: Generator("phaseshift") or Generator("sgbm").

    Call order: init(width, height); set_camera_params(q) with a 4x4 Q for
    rectified captures, or set_camera_params(directory) for raw ones; then
    per capture setpict(frame, camera, index) for every frame (phase shift:
    13 per camera, index 0 black before the Gray-code frames 2..8; block
    matching: one per camera), with rectify(frame, camera) first for raw
    frames; exec(); genPC(mode).
    """

    def setparams(self, params=None, **values):
        """Sets method parameters by field name, from a dict and/or keyword
        arguments; fields not named keep their values (see `params`)."""
        merged = {} if params is None else dict(params)
        merged.update(values)
        self._setparams(merged)

    def filter_disparities(self, **options):
        """Removes outliers from the last exec's matches before genPC: for
        phase shift the pixels the decode rejected and whole-pixel matches
        that cannot be refitted; for both methods matches that jump from
        their right or lower neighbour, sit mid-way on a steep ramp or next
        to pixels without a match, and patches of fewer than 50 matches.
        Options by the names of sl3d::DisparityFilterOptions
        (max_neighbour_step=1.0, min_patch_size=50, ...). Returns a dict of
        the counts removed by each test, "removed" and "kept"."""
        return self._filter_disparities(options)

    def genPC(self, mode=0):
        """Triangulates the last exec's matches: mode 0 through Q; with a
        calibration directory also 1 (closest approach of the sight rays) or
        2 (least squares over both projections). Returns a PointCloud."""
        return PointCloud(*self._genPC(mode))

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


Recognition = namedtuple("Recognition", "code name points")
Recognition.__doc__ = """A board recognition: the recognizer's code (0 success), its
name, and the image position (n, 2) float32 of every circle by marker index,
NaN for circles the numbering did not reach; empty unless code is 0."""

CalibrationResult = namedtuple("CalibrationResult", "cameras errors rms")
CalibrationResult.__doc__ = """A pair calibration: the two DistortCameras (cameras[1]'s R, T
are its pose relative to cameras[0]), per camera the reprojection error of
every image (NaN where the image was left out), and the stereo RMS error."""


class BoardRecognizer(_sl3d.BoardRecognizer):
    def recognize(self, image):
        """Recognizes the board in a 2-D uint8 image; returns a Recognition.
        Every image must have the size of the first one (else code 1)."""
        return Recognition(*self._recognize(image))


class StereoCalib(_sl3d._StereoCalib):
    """Calibrates a camera pair from board views of both cameras.

    StereoCalib(family, pre=..., marker=..., board=..., flags=0,
    focal_length=0.0, image_size=None): recognize the i-th left and i-th
    right image with recognize(), then exec(left_points, right_points) with
    one point array per image (empty for an image without a result).
    image_size is needed only for points found by other means.
    """

    def recognize(self, image):
        return Recognition(*self._recognize(image))

    def exec(self, left, right):
        """Calibrates both cameras, then the pair. Returns a
        CalibrationResult; raises CalibrationError (code 1: a camera, 2: the
        pair) when it fails."""
        return CalibrationResult(*self._exec(left, right))

    def exec_precisely(self, left, right, left_images, right_images, circle_radius=None,
                       remeasure=True, refine=True):
        """Calibrates as exec does, from the markers measured again in the
        images (left_images[i] the image left[i] was recognised in), leaves
        out views whose two images disagree about the board's pose (markers
        numbered differently; see report["left_out_views"]), then refines the calibration for the circle-centre bias: the centre of a
        circle's imaged outline is not the image of its centre. Needs the
        circles' radius in the unit of unit_length unless refine is False.
        Returns a PreciseCalibrationResult; raises CalibrationError as exec."""
        radius = 0.0 if circle_radius is None else float(circle_radius)
        return PreciseCalibrationResult(*self._exec_precisely(
            left, right, left_images, right_images, radius, remeasure, refine))


PreciseCalibrationResult = namedtuple("PreciseCalibrationResult", "cameras errors rms report")
PreciseCalibrationResult.__doc__ = """A CalibrationResult with `report`: markers
remeasured / unmeasured, their mean and largest shift and edge residual (px),
the views left out as (view, error px) pairs, the first calibration's RMS, whether the refinement converged and its steps
(rms, intrinsics_change_px, mean and max outline offset per step)."""


def measure_marker_centres(image, points, grid):
    """Measures every found marker of one image's recognition again from the
    image: edge points round its outline, an ellipse fitted, its centre.
    `points` (n, 2) with NaN for circles not found, as recognize returns
    them; `grid` (n_circles_x, n_circles_y). Returns (points, report): a new
    array (markers that cannot be measured keep the recognizer's centre) and
    a dict of remeasured, unmeasured, dark_markers, mean_shift_px,
    max_shift_px, mean_residual_px."""
    return _sl3d._measure_marker_centres(image, points, grid)
