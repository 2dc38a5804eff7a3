#ifndef SL3D_POINTCLOUD_VERBOSE_H_
#define SL3D_POINTCLOUD_VERBOSE_H_

// Switching a generator's messages on and off through the interface.
//
// A generator made by createPointCloudGenerator prints its progress and
// fallback messages to standard output ("Trying create stereo camera from
// Hmat...", "Q Matrix Not found. ...") because the factory sets its
// `verbose` field. A program whose standard output is its own (a tool that
// prints a report, a Python session) switches them off with
//
//   iPointCloudGenerator* gen = createPointCloudGenerator(0);
//   sl3d::set_verbose(gen, false);
//
// which works on any generator the factory made, without knowing its class.
// Errors are not affected: the calls report them through their results.

#include <sl3d/export.h>
#include <sl3d/pointcloud/PointCloudGenerator.h>

namespace sl3d {

// Sets the generator's `verbose` field to 1 (on) or 0 (off). Returns false,
// and changes nothing, when `gen` is null or not one of this library's
// generators.
SL3D_EXPORT bool set_verbose(iPointCloudGenerator* gen, bool on);

// Whether the generator prints its messages; false for null or a foreign
// implementation of the interface.
SL3D_EXPORT bool is_verbose(const iPointCloudGenerator* gen);

}  // namespace sl3d

#endif  // SL3D_POINTCLOUD_VERBOSE_H_
