"""Board recognition and calibration from Python on rendered views whose
circle centres, marker numbers and cameras are known."""

from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import sl3d
from conftest import CALIBRATION_SIZE as SIZE
from sl3d import sim


@pytest.mark.parametrize("family", ["pellux", "quill"])
def test_recognition_finds_every_circle_where_it_was_drawn(family):
    views = sim.board_views(family, views=3)
    recognizer = sl3d.BoardRecognizer(family, **views.params)
    assert recognizer.n_markers == len(views.truth_index) == 35
    for image, centres in zip(views.images, views.ellipse_centres):
        result = recognizer.recognize(image)
        assert (result.code, result.name) == (0, "Success")
        assert result.points.shape == (35, 2) and result.points.dtype == np.float32
        found = result.points[views.truth_index]
        assert np.all(np.linalg.norm(found - centres, axis=1) < 0.5)

        image_points, board_points = recognizer.corresponding_points(result.points)
        assert len(image_points) == len(board_points) == 35
        order = np.argsort(views.truth_index)
        assert np.allclose(board_points, views.truth_position[order])
        assert np.allclose(recognizer.position(views.truth_index[4]), views.truth_position[4])
    assert recognizer.image_size == (640, 480)
    assert recognizer.result_image().shape == (480, 640, 3)


def test_recognition_results_as_the_library_reports_them(pellux_views):
    views = pellux_views
    recognizer = sl3d.BoardRecognizer("pellux")
    with pytest.raises(sl3d.Error, match="set_parameters"):
        recognizer.recognize(views.images[0])
    recognizer.set_parameters(**views.params)
    first = recognizer.recognize(views.images[0])
    other_size = recognizer.recognize(views.images[0][:240])
    assert (other_size.code, other_size.name, other_size.points.shape) == (1, "ImageSize_Changed", (0, 2))
    blank = recognizer.recognize(np.full((480, 640), 200, np.uint8))
    assert (blank.code, blank.name) == (2, "Few_Contours")
    assert recognizer.error_name(5) == "BaseMarker_ClassifyFailure"
    # A circle not found (NaN) is left out of the correspondences.
    left, right = first.points.copy(), first.points.copy()
    left[3] = np.nan
    l2d, r2d, board = recognizer.corresponding_points(left, right)
    assert len(l2d) == len(r2d) == len(board) == 34


@pytest.mark.parametrize("params, error", [
    ({"board": {"unit_length": 0}}, ValueError),
    ({"board": {"origin_x": 99}}, ValueError),
    ({"board": {"n_circles_x": 100000, "n_circles_y": 100000}}, ValueError),
    ({"board": {"no_such_key": 1}}, KeyError),
    ({"board": {"n_circles_x": 7.5}}, ValueError),
    ({"board": {"n_circles_x": "7"}}, TypeError),
    ({"board": [("n_circles_x", 7)]}, TypeError),
    ({"pre": {"bin_type": 2, "bin_param0": 4}}, ValueError),
    ({"pre": {"do_smoothing": 2}}, ValueError),
    ({"marker": {"debug_show_scale": 0.5}}, ValueError),
])
def test_parameters_the_recognizer_cannot_use(pellux_views, params, error):
    recognizer = sl3d.BoardRecognizer("pellux", **pellux_views.params)
    before = recognizer.params
    with pytest.raises(error):
        recognizer.set_parameters(**params)
    assert recognizer.params == before


def test_calibration_failures_raise(calibration_set):
    points = np.full((88, 2), np.nan)
    calib = sl3d.StereoCalib("pellux", **calibration_set.params, image_size=SIZE)
    with pytest.raises(sl3d.CalibrationError) as failure:
        calib.exec([points] * 3, [points] * 3)
    assert failure.value.code == 1
    unsized = sl3d.StereoCalib("pellux", **calibration_set.params)
    with pytest.raises(sl3d.Error, match="image size"):
        unsized.exec([points], [points])
    with pytest.raises(ValueError, match="one row per circle"):
        calib.exec([points[:10]], [points])
    with pytest.raises(TypeError):
        calib.exec(points, points)


def test_threads_share_a_recognizer_one_call_at_a_time(pellux_views):
    views = pellux_views
    recognizer = sl3d.BoardRecognizer("pellux", **views.params)
    with ThreadPoolExecutor(4) as pool:
        results = list(pool.map(recognizer.recognize, views.images * 4))
    for index, result in enumerate(results):
        assert result.code == 0
        assert np.array_equal(result.points, results[index % 2].points)


def worst_intrinsics_error(result):
    """The largest focal length or principal point error (px), and all errors."""
    error = sim.calibration_error(result.cameras, *SIZE)
    return max(abs(c[k]) for c in error["cameras"] for k in ("fx", "fy", "cx", "cy")), error


def test_calibration_plain_and_precise_and_the_disparity_filter(calibration_set, loaded, tmp_path):
    flags = sl3d.recommended_calibration_flags()
    calib = sl3d.StereoCalib("pellux", **calibration_set.params, flags=flags)
    left = [calib.recognize(image).points for image in calibration_set.left]
    right = [calib.recognize(image).points for image in calibration_set.right]
    result = calib.exec(left, right)
    assert result.rms < 0.3 and [len(e) for e in result.errors] == [12, 12]
    worst, error = worst_intrinsics_error(result)
    assert worst < 1.5 and abs(error["baseline"]) < 0.1 and error["rotation_deg"] < 0.2
    sl3d.store_calibration_directory(result.cameras, tmp_path)
    gen = sl3d.Generator("phaseshift")
    gen.init(*SIZE)
    gen.set_camera_params(tmp_path)
    assert gen.stereo_camera.size == SIZE

    board = calibration_set.params["board"]
    grid = (board["n_circles_x"], board["n_circles_y"])
    measured, report = sl3d.measure_marker_centres(calibration_set.left[0], left[0], grid)
    assert measured.shape == left[0].shape and report["remeasured"] >= 80
    assert report["mean_residual_px"] < 0.1 and 0 < report["mean_shift_px"] < 0.5

    precise = calib.exec_precisely(left, right, calibration_set.left, calibration_set.right,
                                   calibration_set.circle_radius)
    steps = precise.report["steps"]
    assert precise.report["converged"] and len(steps) >= 2
    assert steps[-1]["intrinsics_change_px"] < steps[0]["intrinsics_change_px"]
    assert worst_intrinsics_error(precise)[0] < 0.3
    with pytest.raises(ValueError, match="circle_radius"):
        calib.exec_precisely(left, right, calibration_set.left, calibration_set.right)

    sl3d.set_num_threads(2)
    assert sl3d.num_threads() == 2
    matches = loaded.exec()
    counts = loaded.filter_disparities()
    sl3d.set_num_threads(1)
    assert counts["kept"] + counts["removed"] == matches
    assert 0 < counts["removed"] < 0.02 * counts["kept"]
    assert len(loaded.genPC()) == counts["kept"]
    with pytest.raises(KeyError, match="no_such_option"):
        loaded.filter_disparities(no_such_option=1)
