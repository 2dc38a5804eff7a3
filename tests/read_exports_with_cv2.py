"""What a Python user of sl3d's outputs relies on, checked with Debian's cv2
and numpy: the float TIFFs of `sl3d scan` hold the PLY's points pixel for
pixel, the points are in the left rectified camera's frame, and every
calibration file is readable by cv2 and follows OpenCV's conventions (x1 = R x0 + T;
cv2.stereoRectify with flags 0 and alpha -1 gives the stored rectification).

usage: read_exports_with_cv2.py SL3D_TOOL"""
import os
import subprocess
import sys
import tempfile

import cv2
import numpy as np


def read_ply(path):
    """Vertices (x, y, z) and the range grid (rows x cols, -1 = no point)."""
    with open(path, "rb") as f:
        header = []
        while True:
            line = f.readline().decode("ascii").strip()
            header.append(line)
            if line == "end_header":
                break
        data = f.read()
    count = next(int(l.split()[2]) for l in header if l.startswith("element vertex"))
    cols = next(int(l.split()[2]) for l in header if l.startswith("obj_info num_cols"))
    rows = next(int(l.split()[2]) for l in header if l.startswith("obj_info num_rows"))
    vertex = np.dtype([("xyz", "<f4", 3), ("rgb", "u1", 3)])
    points = np.frombuffer(data, vertex, count)["xyz"]
    grid, pos = np.full(rows * cols, -1, np.int64), count * vertex.itemsize
    for pixel in range(rows * cols):
        entries = data[pos]
        pos += 1
        if entries == 1:
            grid[pixel] = int.from_bytes(data[pos:pos + 4], "little", signed=True)
            pos += 4
    if pos != len(data):
        sys.exit(f"{path}: size does not match its header")
    return points, grid.reshape(rows, cols)


def matrix(path, key):
    fs = cv2.FileStorage(path, cv2.FILE_STORAGE_READ)
    m = fs.getNode(key).mat()
    if m is None:
        sys.exit(f"{path}: no matrix {key}")
    return m


def check(condition, message):
    if not condition:
        sys.exit(message)


def check_tiffs(work, points, grid):
    depth = cv2.imread(os.path.join(work, "depth.tiff"), cv2.IMREAD_UNCHANGED)
    xyz = cv2.imread(os.path.join(work, "xyz.tiff"), cv2.IMREAD_UNCHANGED)
    check(depth is not None and depth.dtype == np.float32 and depth.shape == grid.shape,
          f"depth.tiff: {None if depth is None else (depth.dtype, depth.shape)}")
    check(xyz is not None and xyz.dtype == np.float32 and xyz.shape == grid.shape + (3,),
          f"xyz.tiff: {None if xyz is None else (xyz.dtype, xyz.shape)}")
    has = grid >= 0
    check(np.array_equal(np.isnan(depth), ~has), "depth.tiff: NaN not exactly where no point")
    check(np.isnan(xyz[~has]).all(), "xyz.tiff: a pixel without a point is not NaN")
    check(np.array_equal(depth[has], points[grid[has], 2]), "depth.tiff differs from the PLY's z")
    check(np.array_equal(xyz[has], points[grid[has]]), "xyz.tiff differs from the PLY's x, y, z")
    return has.sum()


def check_frame(calib, points, grid):
    """Each point projects through the left rectified camera onto its pixel."""
    p_left = matrix(os.path.join(calib, "stereo_param.yaml"), "stereoL_P")
    rows, cols = np.nonzero(grid >= 0)
    x = points[grid[rows, cols]].astype(np.float64)
    projected = (p_left @ np.c_[x, np.ones(len(x))].T).T
    check((x[:, 2] > 0).all(), "points behind the left rectified camera")
    error = np.abs(projected[:, :2] / projected[:, 2:] - np.c_[cols, rows]).max()
    check(error < 1e-2, f"points miss their pixel by {error} px in the left rectified camera")


def check_conventions(calib):
    cam0, cam1 = (os.path.join(calib, f"cam{i}_param.yaml") for i in (0, 1))
    k0, d0, p0 = (matrix(cam0, "cam0_" + k) for k in "KDP")
    k1, d1, p1 = (matrix(cam1, "cam1_" + k) for k in "KDP")
    r, t = matrix(cam1, "cam1_R"), matrix(cam1, "cam1_T")
    # cam1_P projects points of camera 0's frame: x1 = R x0 + T.
    check(np.allclose(p0, k0 @ np.eye(3, 4), atol=1e-6), "cam0_P is not K0 [I | 0]")
    check(np.allclose(p1, k1 @ np.c_[r, t], rtol=1e-9, atol=1e-6), "cam1_P is not K1 [R | T]")
    fs = cv2.FileStorage(cam0, cv2.FILE_STORAGE_READ)
    size = tuple(int(fs.getNode("cam0_size").at(i).real()) for i in (0, 1))
    r1, r2, q_p1, q_p2, q, _, _ = cv2.stereoRectify(k0, d0, k1, d1, size, r, t, flags=0, alpha=-1)
    stereo = os.path.join(calib, "stereo_param.yaml")
    for name, ours, opencv in (("cam0_R2", matrix(stereo, "cam0_R2"), r1),
                               ("cam1_R2", matrix(stereo, "cam1_R2"), r2),
                               ("stereoL_P", matrix(stereo, "stereoL_P"), q_p1),
                               ("stereoR_P", matrix(stereo, "stereoR_P"), q_p2),
                               ("Q", matrix(stereo, "Q"), q)):
        check(np.allclose(ours, opencv, rtol=1e-9, atol=1e-9), f"{name} differs from cv2.stereoRectify")
    fs = cv2.FileStorage(stereo, cv2.FILE_STORAGE_READ)
    check(fs.getNode("StereoName").string() == "stereo", "stereo_param.yaml: StereoName")
    for key, entries in (("oldcamSize", 2), ("stereoL_roi", 4)):
        check(fs.getNode(key).size() == entries, f"stereo_param.yaml: {key} is not {entries} numbers")


def main(tool):
    with tempfile.TemporaryDirectory() as work:
        caps = os.path.join(work, "caps")
        for args in (["synth", "--out", caps, "--width", "160", "--height", "128"],
                     ["scan", "--method", "phaseshift", "--images", caps, "--calib",
                      os.path.join(caps, "calib"), "-o", os.path.join(work, "cloud.ply"),
                      "--depth-tiff", os.path.join(work, "depth.tiff"),
                      "--xyz-tiff", os.path.join(work, "xyz.tiff")]):
            run = subprocess.run([tool] + args, capture_output=True, text=True)
            check(run.returncode == 0, f"sl3d {args[0]}: {run.stderr}")
        points, grid = read_ply(os.path.join(work, "cloud.ply"))
        pixels = check_tiffs(work, points, grid)
        check(pixels > grid.size // 2, f"only {pixels} points")
        check_frame(os.path.join(caps, "calib"), points, grid)
        check_conventions(os.path.join(caps, "calib"))
    print("1 passed, 0 failed")


if __name__ == "__main__":
    main(sys.argv[1])
