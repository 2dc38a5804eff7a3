// The `sl3d` tool: dispatches to a subcommand and turns every failure into
// one line on stderr and an exit code.

#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>

#include <sl3d/version.h>

#include "args.h"
#include "commands.h"
#include "errors.h"

namespace sl3d {

namespace {

using Command = int (*)(const std::vector<std::string>&);

Command find_command(const std::string& name) {
  if (name == "scan") return run_scan;
  if (name == "synth") return run_synth;
  if (name == "demo") return run_demo;
  if (name == "calib-info") return run_calib_info;
  if (name == "detect") return run_detect;
  if (name == "calibrate") return run_calibrate;
  if (name == "patterns") return run_patterns;
  if (name == "board") return run_board;
  return nullptr;
}

int print_help(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  return 0;
}

// `sl3d help [COMMAND]`
int run_help(const std::vector<std::string>& args) {
  if (args.empty()) return print_help(general_usage());
  const std::string text = command_usage(args[0]);
  if (args.size() > 1 || text.empty()) {
    throw usage_error("", "no help for '" + args[0] + "'");
  }
  return print_help(text);
}

// The tool's version, and the loaded library's when it is another one.
int print_version() {
  std::printf("sl3d %s", SL3D_VERSION_STRING);
  if (std::string(sl3d::version()) != SL3D_VERSION_STRING) {
    std::printf(" (libsl3d %s)", sl3d::version());
  }
  std::printf("\n");
  return 0;
}

int dispatch(const std::vector<std::string>& args) {
  if (args.empty()) throw usage_error("", "missing command");
  const std::string& name = args[0];
  const std::vector<std::string> rest(args.begin() + 1, args.end());
  if (name == "--help" || name == "-h") return print_help(general_usage());
  if (name == "--version") {
    if (!rest.empty()) throw usage_error("", "--version takes no arguments");
    return print_version();
  }
  if (name == "help") return run_help(rest);
  const Command command = find_command(name);
  if (command == nullptr) throw usage_error("", "unknown command '" + name + "'");
  if (wants_help(rest)) return print_help(command_usage(name));
  return command(rest);
}

void report(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "sl3d: %s\n", message.c_str());
}

}  // namespace

}  // namespace sl3d

int main(int argc, char** argv) {
  // OpenCV logs its own errors, which would add lines to the single error
  // message; the tool reports every failure itself.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  // Reports appear line by line also through a pipe (`sl3d demo | tee log`).
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::vector<std::string> args(argv + 1, argv + argc);
  try {
    return sl3d::dispatch(args);
  } catch (const sl3d::CliError& e) {
    sl3d::report(e.what());
    return e.exit_code();
  } catch (const cv::Exception& e) {
    sl3d::report("OpenCV error in " + e.func + ": " + e.err);
  } catch (const std::bad_alloc&) {
    sl3d::report("out of memory");
  } catch (const std::exception& e) {
    sl3d::report(e.what());
  } catch (...) {
    sl3d::report("unexpected internal error");
  }
  return sl3d::kExitRuntimeError;
}
