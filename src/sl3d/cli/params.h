#ifndef SL3D_CLI_PARAMS_H_
#define SL3D_CLI_PARAMS_H_

// Method parameters from a key file (key_file.h) whose keys are the field
// names of PhaseShiftParams or SGBMParams. Keys left out keep their
// defaults.

#include <string>

#include "method.h"

namespace sl3d {

// Applies the file to the block of `method` in `params`; an unknown or
// repeated key, a non-numeric value, a value outside the key's range or one
// the method cannot use is an error naming the file, the line and the key.
void load_params_file(const std::string& path, Method method, MethodParams& params);

// The accepted keys of `method`, comma separated (for help texts).
std::string param_names(Method method);

}  // namespace sl3d

#endif  // SL3D_CLI_PARAMS_H_
