#ifndef SL3D_CLI_ERRORS_H_
#define SL3D_CLI_ERRORS_H_

// The tool reports every failure as one line on stderr. Code that detects a
// problem throws CliError with the finished message; main() prints it and
// exits with the error's code.

#include <stdexcept>
#include <string>

namespace sl3d {

constexpr int kExitRuntimeError = 1;
constexpr int kExitUsageError = 2;

class CliError : public std::runtime_error {
 public:
  explicit CliError(const std::string& message, int exit_code = kExitRuntimeError)
      : std::runtime_error(message), exit_code_(exit_code) {}
  int exit_code() const { return exit_code_; }

 private:
  int exit_code_;
};

// A problem with one file or directory: "PATH: PROBLEM".
inline CliError file_error(const std::string& path, const std::string& problem) {
  return CliError(path + ": " + problem);
}

// A malformed command line: "COMMAND: PROBLEM (see 'sl3d COMMAND --help')".
inline CliError usage_error(const std::string& command, const std::string& problem) {
  const std::string help = command.empty() ? "sl3d --help" : "sl3d " + command + " --help";
  return CliError((command.empty() ? "" : command + ": ") + problem + " (see '" + help + "')",
                  kExitUsageError);
}

}  // namespace sl3d

#endif  // SL3D_CLI_ERRORS_H_
