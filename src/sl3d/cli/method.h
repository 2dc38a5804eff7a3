#ifndef SL3D_CLI_METHOD_H_
#define SL3D_CLI_METHOD_H_

// The two measuring methods and their parameter blocks.

#include <string>

#include <sl3d/psft/psft.h>
#include <sl3d/sgbm/sgbm.h>

namespace sl3d {

// Values are the kinds createPointCloudGenerator() takes.
enum class Method { kPhaseShift = 0, kSgbm = 1 };

const char* method_name(Method method);
// "phaseshift" or "sgbm"; anything else is a usage error of `command`.
Method parse_method(const std::string& command, const std::string& name);

// Both blocks travel together; the generator takes the one of its method.
struct MethodParams {
  PhaseShiftParams phaseshift;
  SGBMParams sgbm;
};

}  // namespace sl3d

#endif  // SL3D_CLI_METHOD_H_
