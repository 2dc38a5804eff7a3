#ifndef SL3D_POINTCLOUD_PLY_H_
#define SL3D_POINTCLOUD_PLY_H_

// The PLY writer: a point cloud, optionally with its range grid, as a binary
// little-endian PLY file, so that the organised structure of the cloud
// (which camera-0 pixel produced which point) survives on disk.
//
// Layout: an ASCII header ("ply", the format line, "comment VCGLIB
// generated", with a grid "obj_info num_cols/num_rows", the vertex element
// with float x, y, z and uchar red, green, blue, "element face 0", with a
// grid "element range_grid" as a list of uchar count and int indices,
// "end_header"); then 15 bytes per vertex; then per grid cell the byte 0
// (no point) or the byte 1 and the point index as a little-endian int.

#include <string>

#include <sl3d/export.h>

struct PointCloudElement;

// Writes `count` points, and with a non-null range grid also the grid
// (num_cols x num_rows entries, 0xFFFFFFFF = no point). Reads only what it
// is given; the caller keeps ownership.
//
// Returns 0 on success and also when the file cannot be opened (nothing is
// written then); callers that need certainty check the file. With a range
// grid but num_cols or num_rows 0 the file is left with only its first three
// header lines and 0 is returned. A close failure returns EOF. Negative
// counts write no vertex records.
SL3D_EXPORT int writePLY(std::string filename, const PointCloudElement* points, int count,
                         const unsigned int* range_grid, int num_cols, int num_rows);

#endif  // SL3D_POINTCLOUD_PLY_H_
