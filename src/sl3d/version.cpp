#include <sl3d/version.h>

namespace sl3d {

const char* version() { return SL3D_VERSION_STRING; }

}  // namespace sl3d
