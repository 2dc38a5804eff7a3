"""Measuring from Python: the same result as the tool, and close to the
virtual sensor's truth."""

from concurrent.futures import ThreadPoolExecutor

import cv2
import numpy as np
import pytest

import sl3d
from conftest import HEIGHT, WIDTH, run_tool


# Small captures: the comparison is exact, size does not matter.
TOOL_WIDTH, TOOL_HEIGHT = 160, 128


def test_scan_equals_the_tools_ply(tmp_path):
    """A scan of the tool's raw captures through their calibration directory,
    as a Python user writes it, gives the tool's PLY byte for byte."""
    caps = tmp_path / "caps"
    run_tool("synth", "--out", caps, "--width", TOOL_WIDTH, "--height", TOOL_HEIGHT)
    run_tool("scan", "--method", "phaseshift", "--images", caps, "--calib", caps / "calib",
             "--mode", 2, "-o", tmp_path / "tool.ply")
    with sl3d.Generator("phaseshift") as gen:
        gen.init(TOOL_WIDTH, TOOL_HEIGHT)
        gen.set_camera_params(caps / "calib")
        for camera in (0, 1):
            for index in range(13):
                frame = cv2.imread(str(caps / f"cam{camera}_{index:02d}.png"), cv2.IMREAD_UNCHANGED)
                gen.setpict(gen.rectify(frame, camera), camera, index)
        gen.exec()
        gen.filter_disparities()  # as the tool does by default
        gen.genPC(2).write_ply(tmp_path / "python.ply")
    python, tool = (tmp_path / "python.ply").read_bytes(), (tmp_path / "tool.ply").read_bytes()
    assert python == tool
    assert len(tool) > 0.5 * TOOL_WIDTH * TOOL_HEIGHT * 15  # points for half the pixels


def test_cloud_matches_the_true_depth(loaded, capture):
    _, depth_true, _ = capture
    assert loaded.exec() > 0
    cloud = loaded.genPC()
    assert cloud.points.shape == (len(cloud), 3) and cloud.points.dtype == np.float32
    assert cloud.grey.shape == (len(cloud),) and cloud.grey.dtype == np.uint8
    assert cloud.range_grid.shape == (HEIGHT, WIDTH) and cloud.range_grid.dtype == np.int32

    grid = cloud.range_grid
    assert sorted(grid[grid >= 0]) == list(range(len(cloud)))
    depth, xyz = cloud.depth(), cloud.xyz()
    assert np.array_equal(np.isnan(depth), grid < 0)
    assert np.array_equal(xyz[grid >= 0], cloud.points[grid[grid >= 0]])
    error = np.abs(depth - depth_true)[(grid >= 0) & np.isfinite(depth_true)]
    assert np.median(error) < 2.0 and np.mean(error < 10) > 0.95


def test_sgbm_on_a_textured_pair(sensor, capture):
    _, depth_true, q = capture
    with sl3d.Generator("sgbm") as gen:
        gen.init(WIDTH, HEIGHT)
        gen.set_camera_params(q)
        gen.setparams(num_disparities=128)
        for camera in (0, 1):
            gen.setpict(sensor.render_textured(camera), camera)
        assert gen.exec() > 0
        cloud = gen.genPC()
    error = np.abs(cloud.depth() - depth_true)
    assert np.nanmedian(error) < 5.0


def test_results_are_copies(loaded):
    loaded.exec()
    first = loaded.genPC()
    kept = first.points.copy()
    loaded.setparams(max_disparity=30.0)  # fewer matches: the buffers change
    loaded.exec()
    second = loaded.genPC()
    assert len(second) < len(first)
    assert np.array_equal(first.points, kept)


def test_threads_share_a_generator_one_call_at_a_time(loaded):
    def measure(_):
        matches = loaded.exec()
        return matches, len(loaded.genPC())

    with ThreadPoolExecutor(3) as pool:
        results = list(pool.map(measure, range(6)))
    assert len(set(results)) == 1 and results[0][1] > 0


def test_params_by_name(loaded):
    defaults = loaded.params
    assert defaults["fit_width"] == 3 and defaults["min_contrast"] == 12
    loaded.setparams({"fit_width": 5}, min_contrast=20)
    assert loaded.params == dict(defaults, fit_width=5, min_contrast=20)
    for bad, error in [({"fit_width": 4}, ValueError), ({"no_such": 1}, KeyError),
                       ({"min_contrast": 1.5}, ValueError), ({"min_contrast": "12"}, TypeError),
                       ({"max_disparity": float("nan")}, ValueError),
                       ({"min_disparity": 500.0}, ValueError)]:
        with pytest.raises(error):
            loaded.setparams(bad)
        assert loaded.params == dict(defaults, fit_width=5, min_contrast=20)


def test_call_order_is_checked(capture):
    frames, _, q = capture
    gen = sl3d.Generator("phaseshift")
    with pytest.raises(sl3d.Error, match="init"):
        gen.setpict(frames[0, 0], 0, 0)
    gen.init(WIDTH, HEIGHT)
    with pytest.raises(sl3d.Error, match="missing: camera 0 index 0"):
        gen.exec()
    for camera in (0, 1):
        for index in range(13):
            gen.setpict(frames[camera, index], camera, index)
    gen.setpict(frames[1, 0], 1, 0)  # a new black frame: Gray code again
    with pytest.raises(sl3d.Error, match="camera 1 index 2"):
        gen.exec()
    for index in range(2, 9):
        gen.setpict(frames[1, index], 1, index)
    gen.exec()
    with pytest.raises(sl3d.Error, match="set_camera_params"):
        gen.genPC()
    gen.set_camera_params(q)
    with pytest.raises(ValueError, match="calibration directory"):
        gen.genPC(2)
    with pytest.raises(sl3d.Error, match="calibration directory"):
        gen.rectify(frames[0, 0], 0)
    assert len(gen.genPC(0)) > 0
    gen.init(WIDTH, HEIGHT)  # drops Q and the capture
    with pytest.raises(sl3d.Error):
        gen.exec()
    gen.close()
    with pytest.raises(sl3d.Error, match="closed"):
        gen.init(WIDTH, HEIGHT)


def test_messages_only_when_asked(calib_dir, capfd):
    quiet = sl3d.Generator("phaseshift")
    quiet.init(WIDTH, HEIGHT)
    quiet.set_camera_params(calib_dir)
    assert capfd.readouterr().out == ""
    loud = sl3d.Generator("phaseshift", verbose=True)
    loud.init(WIDTH, HEIGHT)
    loud.set_camera_params(calib_dir)
    assert capfd.readouterr().out == "Trying create stereo camera from Hmat...\n>> Success.\n"
    loud.verbose = False
    assert not loud.verbose


def test_rectify_in_place_and_as_copy(sensor, calib_dir):
    gen = sl3d.Generator("phaseshift")
    gen.init(WIDTH, HEIGHT)
    gen.set_camera_params(calib_dir)
    raw = sensor.render_textured(1, raw=True)
    copy = gen.rectify(raw, 1)
    assert not np.array_equal(copy, raw)
    inplace = raw.copy()
    assert gen.rectify(inplace, 1, inplace=True) is inplace
    assert np.array_equal(inplace, copy)
    pair = gen.stereo_camera
    assert np.array_equal(pair.rectify(raw, 1), copy)
    assert np.allclose(pair.Q, gen.q)
    with pytest.raises(ValueError, match="read-only"):
        frozen = raw.copy()
        frozen.flags.writeable = False
        gen.rectify(frozen, 1, inplace=True)
