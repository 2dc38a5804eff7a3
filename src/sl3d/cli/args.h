#ifndef SL3D_CLI_ARGS_H_
#define SL3D_CLI_ARGS_H_

// Option parsing for the subcommands: `--name value`, `--name=value` and
// flags, each at most once; anything else is a usage error.

#include <map>
#include <string>
#include <vector>

namespace sl3d {

struct OptionDef {
  std::string name;        // e.g. "--output"
  bool takes_value;
  std::string alias = "";  // e.g. "-o"
};

class ParsedArgs {
 public:
  explicit ParsedArgs(std::string command) : command_(std::move(command)) {}

  void set(const std::string& name, const std::string& value) { values_[name] = value; }
  bool has(const std::string& name) const { return values_.count(name) != 0; }
  std::string get(const std::string& name, const std::string& fallback) const;
  // The value of an option the command cannot do without.
  std::string require(const std::string& name) const;
  // Numeric values within [lo, hi]; anything else is a usage error.
  int get_int(const std::string& name, int fallback, int lo, int hi) const;
  double get_double(const std::string& name, double fallback, double lo, double hi) const;

 private:
  std::string command_;
  std::map<std::string, std::string> values_;
};

ParsedArgs parse_options(const std::string& command, const std::vector<std::string>& args,
                         const std::vector<OptionDef>& options);

// True when the arguments ask for help (--help or -h anywhere).
bool wants_help(const std::vector<std::string>& args);

}  // namespace sl3d

#endif  // SL3D_CLI_ARGS_H_
