"""Every binding fed wrong inputs: each raises a Python exception with a
message, none crashes the interpreter (a crash would end this process and
fail the suite)."""

import numpy as np
import pytest

import sl3d
from conftest import HEIGHT, WIDTH
from sl3d import sim

H, W = HEIGHT, WIDTH

# Images that are not 2-D uint8 arrays with contiguous rows.
BAD_IMAGES = {
    "float32": (np.zeros((H, W), np.float32), TypeError),
    "object": (np.empty((H, W), object), TypeError),
    "list": ([[0] * W] * H, TypeError),
    "3-D": (np.zeros((H, W, 3), np.uint8), ValueError),
    "empty": (np.zeros((0, W), np.uint8), ValueError),
    "transposed": (np.zeros((W, H), np.uint8).T, ValueError),
    "flipped rows": (np.zeros((H, W), np.uint8)[::-1], ValueError),
}
WRONG_SIZE = (np.zeros((H, W + 8), np.uint8), ValueError)


@pytest.fixture(scope="module")
def objects(calib_dir, pellux_views):
    views = pellux_views
    gen = sl3d.Generator("phaseshift")
    gen.init(W, H)
    gen.set_camera_params(calib_dir)
    return {
        "gen": gen,
        "pair": sl3d.StereoCamera.from_directory(calib_dir, (W, H)),
        "recognizer": sl3d.BoardRecognizer("pellux", **views.params),
        "calib": sl3d.StereoCalib("pellux", **views.params),
        "camera": sl3d.DistortCamera((W, H), np.eye(3), np.zeros(5)),
        "sensor": sim.VirtualSensor(64, 48),
        "image": np.zeros((H, W), np.uint8),
    }


IMAGE_CALLS = {
    "setpict": lambda o, image: o["gen"].setpict(image, 0, 0),
    "Generator.rectify": lambda o, image: o["gen"].rectify(image, 0),
    "StereoCamera.rectify": lambda o, image: o["pair"].rectify(image, 0),
    "recognize": lambda o, image: o["recognizer"].recognize(image),
    "StereoCalib.recognize": lambda o, image: o["calib"].recognize(image),
}


# Every call takes its image through one converter: every bad image through
# one call, and one of each kind through the others.
@pytest.mark.parametrize("call, bad", [("setpict", bad) for bad in BAD_IMAGES] + [
    (call, bad) for call in list(IMAGE_CALLS)[1:] for bad in ("float32", "transposed")] + [
    (call, "wrong size") for call in ("setpict", "Generator.rectify", "StereoCamera.rectify")])
def test_bad_images(objects, call, bad):
    image, error = WRONG_SIZE if bad == "wrong size" else BAD_IMAGES[bad]
    with pytest.raises(error) as raised:
        IMAGE_CALLS[call](objects, image)
    assert str(raised.value)


def initialised():
    gen = sl3d.Generator()
    gen.init(W, H)
    return gen


def read_only(o):
    frozen = o["image"].copy()
    frozen.flags.writeable = False
    return frozen


BAD_CALLS = [
    # generators
    ("method", lambda o: sl3d.Generator("stripes"), ValueError),
    ("init zero", lambda o: sl3d.Generator().init(0, 10), ValueError),
    ("method type", lambda o: sl3d.Generator(2.0), TypeError),
    ("init overflow", lambda o: sl3d.Generator().init(2 ** 31, 1), TypeError),
    ("init too large", lambda o: sl3d.Generator().init(70000, 70000), ValueError),
    ("Q before init", lambda o: sl3d.Generator().set_camera_params(np.eye(4)), sl3d.Error),
    ("Q 3x3", lambda o: o["gen"].set_camera_params(np.eye(3)), ValueError),
    ("Q NaN", lambda o: o["gen"].set_camera_params(np.full((4, 4), np.nan)), ValueError),
    ("Q none", lambda o: o["gen"].set_camera_params(None), TypeError),
    ("Q complex", lambda o: o["gen"].set_camera_params(np.eye(4, dtype=complex)), TypeError),
    ("missing directory", lambda o: initialised().set_camera_params("/no/such/dir"), sl3d.Error),
    ("empty path", lambda o: initialised().set_camera_params(""), ValueError),
    ("camera 2", lambda o: o["gen"].setpict(o["image"], 2, 0), ValueError),
    ("camera -1", lambda o: o["gen"].rectify(o["image"], -1), ValueError),
    ("camera huge", lambda o: o["gen"].setpict(o["image"], 2 ** 40, 0), TypeError),
    ("index 13", lambda o: o["gen"].setpict(o["image"], 0, 13), ValueError),
    ("read-only in place", lambda o: o["gen"].rectify(read_only(o), 0, inplace=True), ValueError),
    ("mode 3", lambda o: o["gen"].genPC(3), ValueError),
    ("params type", lambda o: o["gen"].setparams(5), TypeError),
    ("params key type", lambda o: o["gen"].setparams({1: 2}), TypeError),
    ("sgbm num_disparities", lambda o: sl3d.Generator("sgbm").setparams(num_disparities=-16), ValueError),
    ("sgbm block_size", lambda o: sl3d.Generator("sgbm").setparams(block_size=4), ValueError),
    ("sgbm mode", lambda o: sl3d.Generator("sgbm").setparams(mode=9), ValueError),
    ("ply directory", lambda o: sl3d.write_ply("/no/such/dir/x.ply", np.zeros((1, 3))), sl3d.FileError),
    ("ply points", lambda o: sl3d.write_ply("x.ply", np.zeros((4, 2))), ValueError),
    ("ply grey dtype", lambda o: sl3d.write_ply("x.ply", np.zeros((2, 3)), np.zeros(2)), TypeError),
    ("ply grey length", lambda o: sl3d.write_ply("x.ply", np.zeros((2, 3)), np.zeros(3, np.uint8)), ValueError),
    ("ply grid index", lambda o: sl3d.write_ply("x.ply", np.zeros((2, 3)), None, [[0, 5]]), ValueError),
    # cameras and the stereo model
    ("pair directory type", lambda o: sl3d.StereoCamera.from_directory(42, (W, H)), TypeError),
    ("pair size", lambda o: sl3d.StereoCamera.from_directory(".", (0, 0)), ValueError),
    ("pair size type", lambda o: sl3d.StereoCamera.from_directory(".", "640x480"), TypeError),
    ("pair yaml missing", lambda o: sl3d.StereoCamera.load("/no/such/dir"), sl3d.FileError),
    ("pair cameras", lambda o: sl3d.StereoCamera([o["camera"]]), TypeError),
    ("pair camera types", lambda o: sl3d.StereoCamera([o["camera"], "cam1"]), TypeError),
    ("pair rectify camera", lambda o: o["pair"].rectify(o["image"], 5), ValueError),
    ("triangulate shape", lambda o: o["pair"].triangulate(np.zeros((3, 3)), np.zeros((3, 3))), ValueError),
    ("triangulate lengths", lambda o: o["pair"].triangulate(np.zeros((3, 2)), np.zeros((2, 2))), ValueError),
    ("triangulate NaN", lambda o: o["pair"].triangulate([[np.nan, 0]], [[0, 0]]), ValueError),
    ("triangulate text", lambda o: o["pair"].triangulate("ab", "cd"), TypeError),
    ("reproject lengths", lambda o: o["pair"].reproject(np.zeros((3, 2)), np.zeros(2)), ValueError),
    ("camera K", lambda o: sl3d.DistortCamera((W, H), np.eye(2), np.zeros(5)), ValueError),
    ("camera D", lambda o: sl3d.DistortCamera((W, H), np.eye(3), np.zeros(3)), ValueError),
    ("camera NaN", lambda o: sl3d.DistortCamera((W, H), np.full((3, 3), np.nan), np.zeros(5)), ValueError),
    ("project shape", lambda o: o["camera"].project(np.zeros((2, 2))), ValueError),
    # boards and calibration
    ("family", lambda o: sl3d.BoardRecognizer("chess"), ValueError),
    ("params not dict", lambda o: sl3d.BoardRecognizer("pellux", board=7), TypeError),
    ("position", lambda o: o["recognizer"].position(35), IndexError),
    ("marker index", lambda o: o["recognizer"].marker_index(50, 50), IndexError),
    ("points length", lambda o: o["recognizer"].corresponding_points(np.zeros((3, 2))), ValueError),
    ("points dtype", lambda o: o["recognizer"].corresponding_points(np.zeros((35, 2), complex)), TypeError),
    ("calib board", lambda o: sl3d.StereoCalib("pellux"), ValueError),
    ("calib focal", lambda o: sl3d.StereoCalib("pellux", board={"unit_length": 1, "n_circles_x": 2,
                                                               "n_circles_y": 2}, focal_length=-1), ValueError),
    ("calib size", lambda o: sl3d.StereoCalib("pellux", board={"unit_length": 1, "n_circles_x": 2,
                                                              "n_circles_y": 2}, image_size=(0, 5)), ValueError),
    ("store cameras", lambda o: sl3d.store_calibration_directory([o["camera"]], "."), TypeError),
    ("store directory", lambda o: sl3d.store_calibration_directory([o["camera"]] * 2, "/no/such"), sl3d.FileError),
    # the virtual sensor
    ("sensor size", lambda o: sim.VirtualSensor(0, 48), ValueError),
    ("sensor focal", lambda o: sim.VirtualSensor(64, 48, focal_px=-1), ValueError),
    ("sensor camera", lambda o: o["sensor"].render_textured(3), ValueError),
    ("light key", lambda o: o["sensor"].render_textured(0, light={"sun": 1}), KeyError),
    ("light value", lambda o: o["sensor"].render_phase_shift(0, light={"noise_sigma": -1}), ValueError),
    ("light type", lambda o: o["sensor"].render_phase_shift(0, light=3), TypeError),
    ("distance shape", lambda o: o["sensor"].distance_to_scene(np.zeros(3)), ValueError),
    ("board family", lambda o: sim.board_views("chess"), ValueError),
    ("board views", lambda o: sim.board_views("pellux", views=0), ValueError),
    ("board noise", lambda o: sim.board_views("pellux", noise=float("nan")), ValueError),
    ("error cameras", lambda o: sim.calibration_error([], 64, 48), TypeError),
]


@pytest.mark.parametrize("name, call, error", BAD_CALLS, ids=[c[0] for c in BAD_CALLS])
def test_bad_arguments(objects, tmp_path, monkeypatch, name, call, error):
    monkeypatch.chdir(tmp_path)
    with pytest.raises(error) as raised:
        call(objects)
    assert str(raised.value)
