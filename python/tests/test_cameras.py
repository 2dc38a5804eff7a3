"""Cameras and the stereo model from Python, checked against geometry whose
answer is known."""

import numpy as np
import pytest

import sl3d
from conftest import HEIGHT, WIDTH

POINTS = np.array([[0.0, 0.0, 800.0], [-120.0, 60.0, 1000.0], [90.0, -70.0, 650.0]])


@pytest.fixture(scope="module")
def pair(calib_dir):
    return sl3d.StereoCamera.from_directory(calib_dir, (WIDTH, HEIGHT))


def test_loaded_pair_describes_the_rectified_cameras(pair, calib_dir):
    assert pair.size == (WIDTH, HEIGHT) and pair.raw_size == (WIDTH, HEIGHT)
    left, right = pair.cameras
    assert left.K.shape == (3, 3) and right.P.shape == (3, 4) and left.T.shape == (3,)
    assert np.allclose(left.P, left.K @ np.hstack([left.R, left.T[:, None]]))
    # Rectified: equal focal lengths and rows, the right camera one baseline
    # along x.
    assert np.allclose(left.K[:, :2], right.K[:, :2]) and left.K[1, 2] == right.K[1, 2]
    assert pair.camdis[0] == pytest.approx(np.linalg.norm(pair.camdis))
    yaml_form = sl3d.StereoCamera.load(calib_dir)
    assert np.allclose(yaml_form.cameras[1].P, right.P, atol=1e-6)
    assert np.allclose(yaml_form.Q, pair.Q, atol=1e-9)


def test_triangulation_recovers_projected_points(pair):
    left, right = pair.cameras
    pl, pr = left.project(POINTS), right.project(POINTS)
    assert np.allclose(pl[:, 1], pr[:, 1])  # rectified: same rows
    assert np.allclose(pair.triangulate(pl, pr), POINTS, atol=1e-6)
    points, gaps = pair.triangulate_rays(pl, pr)
    assert np.allclose(points, POINTS, atol=1e-6) and np.all(gaps < 1e-6)
    assert np.allclose(pair.reproject(pl, pl[:, 0] - pr[:, 0]), POINTS, atol=1e-6)


def test_pair_rectified_from_calibrated_cameras(sensor, pair):
    raw = sensor.true_cameras()
    assert [c.name for c in raw] == ["cam0", "cam1"] and raw[0].D.shape == (5,)
    rebuilt = sl3d.StereoCamera(raw)
    assert np.allclose(rebuilt.cameras[0].P, pair.cameras[0].P, atol=1e-6)
    image = sensor.render_textured(0, raw=True)
    assert np.array_equal(rebuilt.rectify(image, 0), pair.rectify(image, 0))
    # A camera made from its parameters projects as the original does.
    copy = sl3d.DistortCamera(raw[1].size, raw[1].K, raw[1].D, raw[1].R, raw[1].T, name="cam1")
    assert np.allclose(copy.project(POINTS), raw[1].project(POINTS))
    assert np.allclose(copy.center, -raw[1].R.T @ raw[1].T)


def test_stored_pair_loads_again(pair, tmp_path):
    pair.save(tmp_path)
    pair.store_hmats(tmp_path)
    again = sl3d.StereoCamera.from_directory(tmp_path, (WIDTH, HEIGHT))
    assert np.allclose(again.Q, pair.Q)
    assert np.allclose(sl3d.StereoCamera.load(tmp_path).cameras[0].P, pair.cameras[0].P)
    with pytest.raises(sl3d.FileError):
        pair.save(tmp_path / "missing")
    with pytest.raises(sl3d.Error, match="no usable calibration"):
        (tmp_path / "empty").mkdir()
        sl3d.StereoCamera.from_directory(tmp_path / "empty", (WIDTH, HEIGHT))
