"""Reads a calibration directory written by sl3d with Python's cv2.FileStorage:
every YAML file the library writes must be readable by other OpenCV-based
tools, with the keys and shapes a user would look for."""
import sys

import cv2


def read(path, key):
    fs = cv2.FileStorage(path, cv2.FILE_STORAGE_READ)
    if not fs.isOpened():
        sys.exit(f"{path}: cannot open")
    node = fs.getNode(key)
    if node.empty():
        sys.exit(f"{path}: key {key} missing")
    if node.isString():
        return node.string()
    if node.isSeq():
        return [int(node.at(i).real()) for i in range(node.size())]
    return node.mat()


def main(directory):
    expected = {
        "cam0_param.yaml": {"cam0_size": [64, 48], "cam0_K": (3, 3), "cam0_R": (3, 3),
                            "cam0_T": (3, 1), "cam0_P": (3, 4), "cam0_D": (1, 5)},
        "cam1_param.yaml": {"cam1_size": [64, 48], "cam1_P": (3, 4), "cam1_D": (1, 5)},
        "stereo_param.yaml": {"StereoName": "stereo", "stereoL_P": (3, 4), "stereoR_P": (3, 4),
                              "Q": (4, 4), "oldcamSize": [64, 48], "cam0_R2": (3, 3),
                              "cam1_R2": (3, 3)},
    }
    for name, keys in expected.items():
        for key, want in keys.items():
            got = read(f"{directory}/{name}", key)
            shape = got.shape if hasattr(got, "shape") else got
            if shape != want:
                sys.exit(f"{name}: {key} is {shape}, expected {want}")
    roi = read(f"{directory}/stereo_param.yaml", "stereoL_roi")
    if len(roi) != 4:
        sys.exit(f"stereo_param.yaml: stereoL_roi has {len(roi)} entries")
    print("1 passed, 0 failed")


if __name__ == "__main__":
    main(sys.argv[1])
