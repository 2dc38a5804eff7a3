#ifndef SL3D_CLI_COMMANDS_H_
#define SL3D_CLI_COMMANDS_H_

// The subcommands. Each takes the arguments after its name and returns the
// exit code; failures are thrown as CliError.

#include <string>
#include <vector>

namespace sl3d {

int run_scan(const std::vector<std::string>& args);
int run_synth(const std::vector<std::string>& args);
int run_demo(const std::vector<std::string>& args);
int run_calib_info(const std::vector<std::string>& args);
int run_detect(const std::vector<std::string>& args);
int run_calibrate(const std::vector<std::string>& args);
int run_patterns(const std::vector<std::string>& args);
int run_board(const std::vector<std::string>& args);

// Help texts: the general one, or that of a command ("" when unknown).
std::string general_usage();
std::string command_usage(const std::string& command);

// Progress notes for long steps on stderr, also when it is not a terminal
// (a log shows where a long run is): "sl3d: progress: NOTE". Failures stay
// one line of their own, without the "progress:" mark.
void progress(const std::string& note);

}  // namespace sl3d

#endif  // SL3D_CLI_COMMANDS_H_
