"""Fixtures shared by the Python suite: captures and board views of the
virtual sensor, rendered once per session, and the sl3d tool for
comparisons (SL3D_TOOL, set by the build's test registration)."""

import os
import subprocess

import numpy as np
import pytest

import sl3d
from sl3d import sim

WIDTH, HEIGHT = 320, 256
CALIBRATION_SIZE = (480, 384)


def run_tool(*args):
    tool = os.environ.get("SL3D_TOOL")
    if not tool:
        pytest.skip("SL3D_TOOL is not set (the tool was not built)")
    return subprocess.run([tool, *map(str, args)], check=True, capture_output=True, text=True)


@pytest.fixture(scope="session")
def sensor():
    return sim.VirtualSensor(WIDTH, HEIGHT)


@pytest.fixture(scope="session")
def capture(sensor):
    """The 13 phase-shift frames of both rectified cameras, (2, 13, H, W),
    with the true depth of camera 0 and the pair's Q."""
    frames = np.stack([sensor.render_phase_shift(camera) for camera in (0, 1)])
    depth, q = sensor.ground_truth()
    return frames, depth, q


@pytest.fixture(scope="session")
def calib_dir(sensor, tmp_path_factory):
    """The calibration directory of the sensor's raw cameras."""
    path = tmp_path_factory.mktemp("calib")
    sensor.write_calibration_directory(path)
    return path


@pytest.fixture
def loaded(capture):
    """A phase-shift generator with the rectified capture handed in."""
    frames, _, q = capture
    gen = sl3d.Generator("phaseshift")
    gen.init(WIDTH, HEIGHT)
    gen.set_camera_params(q)
    for camera in (0, 1):
        for index in range(13):
            gen.setpict(frames[camera, index], camera, index)
    yield gen
    gen.close()


@pytest.fixture(scope="session")
def calibration_set():
    """Twelve stereo views of the three-ring board."""
    return sim.calibration_set("pellux", *CALIBRATION_SIZE)


@pytest.fixture(scope="session")
def pellux_views():
    """Two views of the three-ring board and its parameters."""
    return sim.board_views("pellux", views=2)
