#ifndef SL3D_CAMERA_CAMERA_UNDISTORT_H_
#define SL3D_CAMERA_CAMERA_UNDISTORT_H_

// An ideal PinHoleCamera that also carries the pixel maps turning an image
// of a real, distorted camera (DistortCamera) into the image this ideal
// camera would see: undistorted and, in a stereo pair, rectified.
//
// Use it for the rectified cameras of a stereo pair: set the rectified PPM
// with setPPM, build the maps with initMap, warp captured images with remap.
// The maps are stored in the binary format of rectify_map_io.h.

#include <string>

#include <opencv2/core.hpp>

#include <sl3d/camera/camera_distort.h>
#include <sl3d/camera/camera_pinhole.h>
#include <sl3d/camera/rectify_map_io.h>
#include <sl3d/export.h>

class SL3D_EXPORT UndistortCamera : public PinHoleCamera {
 public:
  UndistortCamera(cv::Size_<int> size, std::string name);
  // Copies the base, selectors, roi and fill; map1/map2 are deep copies.
  UndistortCamera(const UndistortCamera& other);
  UndistortCamera& operator=(const UndistortCamera& other);
  ~UndistortCamera() override;

  // map1/map2 = cv::initUndistortRectifyMap(source.K, source.D, Rrect, K,
  // size, type): for every pixel of this (rectified) camera, the source
  // column and row in the distorted image. Rrect rotates the source camera
  // frame into this camera's frame. This camera's K and size must already be
  // the rectified ones. Map type: 32-bit float when use_float_map != 0, else
  // the code 2, which OpenCV rejects with its assertion exception.
  void initMap(DistortCamera& source, cv::Mat_<double>& Rrect);

  // Warps src into dst through map1/map2 with the interpolation selected by
  // `interpolation`. An empty dst is created with src's size and type and
  // set to `fill`; a non-empty dst is used as it is. The border is
  // transparent: pixels whose source lies outside src keep what dst held.
  void remap(cv::Mat& src, cv::Mat& dst);

  // The pinhole keys (never "CameraName", even in the own file
  // name + "_param.yaml" used when fs is null) plus name + "_roi" = [x, y,
  // width, height]. With a non-empty mapPath the maps go to / come from that
  // binary file (map1's record, then map2's).
  // save: false when the storage is not open, the map file cannot be
  // created, or a map is empty. load: false when the storage is not open,
  // the base load fails, or the map file is corrupt; a missing map file only
  // prints a warning on stderr and still returns true.
  // These hide the base save/load(cv::FileStorage*) on purpose: storing an
  // UndistortCamera always goes through these.
  bool save(cv::FileStorage* fs, std::string mapPath);
  bool load(cv::FileStorage* fs, std::string mapPath);

  int use_float_map = 0;  // non-zero: 32-bit float maps
  // This system's own numbering: 0 nearest, 2 bicubic, 3 Lanczos 8x8,
  // anything else bilinear (3 is not OpenCV's "area").
  int interpolation = 0;
  cv::Mat map1;            // source column per destination pixel
  cv::Mat map2;            // source row per destination pixel
  cv::Rect roi;            // valid-pixel rectangle of the rectified image
  cv::Scalar fill;         // colour of pixels the maps do not cover
};

#endif  // SL3D_CAMERA_CAMERA_UNDISTORT_H_
