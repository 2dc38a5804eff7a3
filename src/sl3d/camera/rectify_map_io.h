#ifndef SL3D_CAMERA_RECTIFY_MAP_IO_H_
#define SL3D_CAMERA_RECTIFY_MAP_IO_H_

// Binary files of the undistortion/rectification pixel maps.
//
// Two layouts, both built from 32-bit ints in native byte order (little-endian
// on the target) and zero padding up to the next multiple of 8 of the
// ABSOLUTE stream position (tellp/tellg), so a record written at a position
// that is not a multiple of 8 pads differently and must be read back from
// the same position:
//
// - Map record (save_map/load_map), one per matrix; the map file of an
//   UndistortCamera is map1's record followed by map2's:
//     int32 type | int32 cols | int32 rows | pad | rows*cols*elemSize bytes | pad
//   (cols before rows). At file position 0 the header pads 12 -> 16 bytes.
// - Pair table (SaveRectifyTables/LoadRectifyTables): four table records
//     int32 count (= rows*cols) | pad | rows*cols float32, row by row | pad
//   in the order cams[0].map1, cams[1].map1, cams[0].map2, cams[1].map2.
//
// Corrupt input: readers check every header against the bytes left in the
// stream and against sane dimensions before allocating, and return false on
// a header with zero, negative or overflowing sizes, an invalid type code,
// or more data than the file still holds. A corrupt file therefore never
// triggers an unbounded allocation or a crash.

#include <istream>
#include <ostream>

#include <opencv2/core.hpp>

#include <sl3d/export.h>

class UndistortCamera;

// Writes/reads the sizeof(T) bytes of v in memory order.
template <typename T>
void save_element(std::ostream& os, const T& v) {
  os.write(reinterpret_cast<const char*>(&v), sizeof(T));
}
template <typename T>
void load_element(std::istream& is, T& v) {
  is.read(reinterpret_cast<char*>(&v), sizeof(T));
}

// Pads with zero bytes (writer) or skips bytes (reader) up to the next
// multiple of 8 of the absolute stream position; nothing when aligned.
void alignment_padding_offset(std::ostream& os);
void alignment_padding_offset(std::istream& is);

// One map record. False, nothing written, for a matrix without data or
// elements. m must be continuous.
SL3D_EXPORT bool save_map(std::ostream& os, cv::Mat& m);

// Reads one map record into m (released and re-created with the stored
// type and shape). False when the header is corrupt (see above); on a
// zero-sized header m is left untouched and the stream stands after the
// 12 header bytes.
SL3D_EXPORT bool load_map(std::istream& is, cv::Mat& m);

// One table record of m's elements as 4-byte floats (m should be 32-bit
// float; row stride honoured).
void _save_rtable(std::ostream& os, cv::Mat& m);

// Reads one table record into m, which must already be a 32-bit float
// single-channel matrix of the expected shape. False when the stored count
// differs from m.rows * m.cols, m has another type, the data runs past the
// end of the stream, or the stream fails.
bool _load_rtable(std::istream& is, cv::Mat& m);

// Writes the pair table of cams[0], cams[1] (an array of two cameras); maps
// of another depth are converted to 32-bit float first.
SL3D_EXPORT void SaveRectifyTables(UndistortCamera* cams, std::ostream& os);

// Reads the pair table into cams[0], cams[1]: each table is read into a new
// float matrix of the camera's image size and assigned on success. The first
// failure stops (maps read before it stay assigned) and returns false; true
// when all four tables were read.
SL3D_EXPORT bool LoadRectifyTables(UndistortCamera* cams, std::istream& is);

#endif  // SL3D_CAMERA_RECTIFY_MAP_IO_H_
