#include "args.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "errors.h"

namespace sl3d {

namespace {

const OptionDef* find_option(const std::vector<OptionDef>& options, const std::string& arg) {
  for (const OptionDef& option : options) {
    if (arg == option.name || (!option.alias.empty() && arg == option.alias)) return &option;
  }
  return nullptr;
}

template <class T>
std::string range_text(T lo, T hi) {
  std::ostringstream s;
  s << lo << " to " << hi;
  return s.str();
}

}  // namespace

std::string ParsedArgs::get(const std::string& name, const std::string& fallback) const {
  const auto it = values_.find(name);
  return it == values_.end() ? fallback : it->second;
}

std::string ParsedArgs::require(const std::string& name) const {
  const auto it = values_.find(name);
  if (it == values_.end()) throw usage_error(command_, "missing required option " + name);
  if (it->second.empty()) throw usage_error(command_, name + " needs a non-empty value");
  return it->second;
}

int ParsedArgs::get_int(const std::string& name, int fallback, int lo, int hi) const {
  if (!has(name)) return fallback;
  const std::string text = get(name, "");
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < lo || value > hi) {
    throw usage_error(command_, name + " expects an integer from " + range_text(lo, hi) +
                                    ", got '" + text + "'");
  }
  return static_cast<int>(value);
}

double ParsedArgs::get_double(const std::string& name, double fallback, double lo,
                              double hi) const {
  if (!has(name)) return fallback;
  const std::string text = get(name, "");
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  // The negated comparison also rejects NaN.
  if (text.empty() || *end != '\0' || errno != 0 || !(value >= lo && value <= hi)) {
    throw usage_error(command_, name + " expects a number from " + range_text(lo, hi) +
                                    ", got '" + text + "'");
  }
  return value;
}

ParsedArgs parse_options(const std::string& command, const std::vector<std::string>& args,
                         const std::vector<OptionDef>& options) {
  ParsedArgs parsed(command);
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string arg = args[i];
    std::string value;
    const std::size_t eq = arg.find('=');
    const bool inline_value = arg.rfind("--", 0) == 0 && eq != std::string::npos;
    if (inline_value) {
      value = arg.substr(eq + 1);
      arg.resize(eq);
    }
    const OptionDef* option = find_option(options, arg);
    if (option == nullptr) {
      const bool looks_like_option = !arg.empty() && arg[0] == '-';
      throw usage_error(command, std::string(looks_like_option ? "unknown option '"
                                                               : "unexpected argument '") +
                                     arg + "'");
    }
    if (option->takes_value && !inline_value) {
      if (i + 1 >= args.size()) throw usage_error(command, option->name + " needs a value");
      value = args[++i];
    } else if (!option->takes_value && inline_value) {
      throw usage_error(command, option->name + " takes no value");
    }
    if (parsed.has(option->name)) throw usage_error(command, option->name + " given twice");
    parsed.set(option->name, value);
  }
  return parsed;
}

bool wants_help(const std::vector<std::string>& args) {
  for (const std::string& arg : args) {
    if (arg == "--help" || arg == "-h") return true;
  }
  return false;
}

}  // namespace sl3d
