#ifndef SL3D_EXPORT_H_
#define SL3D_EXPORT_H_

// SL3D_EXPORT marks the public surface of libsl3d.so. The library is built
// with hidden visibility, so everything without this mark stays internal.
#if defined(__GNUC__)
#define SL3D_EXPORT __attribute__((visibility("default")))
#else
#define SL3D_EXPORT
#endif

#endif  // SL3D_EXPORT_H_
