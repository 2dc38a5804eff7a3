#ifndef SL3D_CLI_PARAMS_H_
#define SL3D_CLI_PARAMS_H_

// Method parameters from a YAML file whose keys are the field names of
// PhaseShiftParams or SGBMParams. Keys left out keep their defaults.

#include <string>

#include "method.h"

namespace sl3d {

// Applies the file to the block of `method` in `params`; an unknown key, a
// non-numeric value or a value the method cannot use is an error naming the
// file.
void load_params_file(const std::string& path, Method method, MethodParams& params);

// The accepted keys of `method`, comma separated (for help texts).
std::string param_names(Method method);

}  // namespace sl3d

#endif  // SL3D_CLI_PARAMS_H_
