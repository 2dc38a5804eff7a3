#include <sl3d/camera/yaml_reader.h>

#include <cctype>
#include <cmath>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>

namespace sl3d {

namespace {

constexpr int kMaxDepth = 16;

struct Line {
  int number;           // 1-based
  int indent;           // leading spaces
  std::string content;  // without indentation, comment and trailing blanks
};

// A parse error; caught at the entry point and turned into the message.
struct YamlError {
  int line;
  std::string problem;
};

[[noreturn]] void fail(int line, const std::string& problem) { throw YamlError{line, problem}; }

bool is_blank(char c) { return c == ' ' || c == '\t'; }

std::string trim_right(const std::string& s) {
  std::size_t end = s.size();
  while (end > 0 && is_blank(s[end - 1])) --end;
  return s.substr(0, end);
}

std::string trim(const std::string& s) {
  std::size_t begin = 0;
  while (begin < s.size() && is_blank(s[begin])) ++begin;
  return trim_right(s.substr(begin));
}

// '#' starts a comment at the line start or after a blank, outside quotes.
std::string without_comment(const std::string& text) {
  char quote = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '#' && (i == 0 || is_blank(text[i - 1]))) {
      return text.substr(0, i);
    }
  }
  return text;
}

// Control bytes have no place in these files; NUL in particular makes
// C-string based readers see a different text than this one.
void check_bytes(const std::string& raw, int number) {
  for (const char c : raw) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u == 0) fail(number, "NUL byte");
    if ((u < 0x20 && c != '\t' && c != '\r') || u == 0x7f) fail(number, "control character");
  }
}

Line make_line(int number, const std::string& raw) {
  std::size_t indent = 0;
  while (indent < raw.size() && is_blank(raw[indent])) {
    if (raw[indent] == '\t') fail(number, "tab in the indentation (use spaces)");
    ++indent;
  }
  return {number, static_cast<int>(indent), trim_right(without_comment(raw.substr(indent)))};
}

std::vector<Line> content_lines(const std::string& text) {
  std::vector<Line> lines;
  std::size_t start = 0;
  for (int number = 1; start <= text.size(); ++number) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string raw = text.substr(start, end - start);
    if (!raw.empty() && raw.back() == '\r') raw.pop_back();
    check_bytes(raw, number);
    Line line = make_line(number, raw);
    if (!line.content.empty()) lines.push_back(std::move(line));
    start = end + 1;
  }
  return lines;
}

bool is_key_start(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool is_key_char(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
}
bool is_plain_char(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '+' ||
         c == '-' || c == '/' || c == ' ';
}

YamlNode scalar_node(int line, std::string text, bool quoted) {
  YamlNode node;
  node.kind = YamlNode::Kind::kScalar;
  node.line = line;
  node.text = std::move(text);
  node.quoted = quoted;
  return node;
}

// A plain (unquoted) scalar: words and numbers only.
YamlNode plain_scalar(int line, const std::string& text) {
  if (text.empty()) fail(line, "missing value");
  for (const char c : text) {
    if (!is_plain_char(c)) {
      if (c == '{' || c == '}') fail(line, "flow maps ({...}) and JSON are not supported");
      if (c == '&' || c == '*' || c == '|' || c == '>') {
        fail(line, std::string("'") + c + "' (anchors, aliases, block scalars) is not supported");
      }
      fail(line, std::string("unexpected character '") + c + "' in a value");
    }
  }
  if (text[0] == '-' && text.size() > 1 && text[1] == ' ') fail(line, "unexpected sequence entry");
  YamlNode node = scalar_node(line, text, false);
  // Anything else is left to the reader's own guess ("...4" once read as
  // a huge row count), so it is refused here.
  // Words: a letter or '_' first, or letters and digits only ("3d").
  const bool alnum = std::all_of(text.begin(), text.end(),
                                 [](char c) { return std::isalnum(static_cast<unsigned char>(c)); });
  const bool word = std::isalpha(static_cast<unsigned char>(text[0])) || text[0] == '_' || alnum;
  if (!word && !node.is_number()) fail(line, "'" + text + "' is neither a number nor a word");
  return node;
}

// A quoted scalar starting at text[i]; i ends after the closing quote.
YamlNode quoted_scalar(int line, const std::string& text, std::size_t& i) {
  const char quote = text[i];
  const std::size_t close = text.find(quote, i + 1);
  if (close == std::string::npos) fail(line, "unclosed quote");
  const std::string inner = text.substr(i + 1, close - i - 1);
  for (const char c : inner) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u > 0x7e || c == '\\') fail(line, "quoted strings hold printable ASCII only");
  }
  i = close + 1;
  return scalar_node(line, inner, true);
}

class Parser {
 public:
  explicit Parser(std::vector<Line> lines) : lines_(std::move(lines)) {}

  YamlNode document() {
    skip_header();
    YamlNode root;
    root.line = pos_ < lines_.size() ? lines_[pos_].number : 1;
    if (pos_ < lines_.size() && !is_end_marker()) {
      parse_map(lines_[pos_].indent, 1, root);
    }
    if (pos_ < lines_.size() && lines_[pos_].content == "...") ++pos_;
    if (pos_ < lines_.size()) {
      const Line& line = lines_[pos_];
      if (line.content == "---") fail(line.number, "a second document is not supported");
      fail(line.number, "unexpected indentation or text after the document");
    }
    return root;
  }

 private:
  // "..." ends the document; a "---" after content would start another.
  bool is_end_marker() const {
    return lines_[pos_].content == "..." || lines_[pos_].content == "---";
  }

  // "%YAML:1.x" or "%YAML 1.x", then at most one "---".
  void skip_header() {
    while (pos_ < lines_.size() && lines_[pos_].content[0] == '%') {
      const Line& line = lines_[pos_];
      const std::string& c = line.content;
      const bool yaml1 = c.size() > 8 && c.compare(0, 5, "%YAML") == 0 &&
                         (c[5] == ':' || c[5] == ' ') && c.compare(6, 2, "1.") == 0 &&
                         c.find_first_not_of("0123456789", 8) == std::string::npos;
      if (!yaml1) fail(line.number, "unsupported directive (only %YAML:1.x)");
      ++pos_;
    }
    if (pos_ < lines_.size() && lines_[pos_].content == "---") ++pos_;
  }

  static std::string key_of(const Line& line, std::size_t& after_colon) {
    const std::string& c = line.content;
    if (c[0] == '{' || c[0] == '[') fail(line.number, "flow maps ({...}) and JSON are not supported");
    if (c[0] == '-' && (c.size() == 1 || c[1] == ' ')) {
      fail(line.number, "expected 'key: value', found a sequence entry");
    }
    std::size_t i = 0;
    if (c[0] == '"' || c[0] == '\'') fail(line.number, "quoted keys are not supported");
    if (!is_key_start(c[0])) fail(line.number, "expected 'key: value'");
    while (i < c.size() && is_key_char(c[i])) ++i;
    const std::string key = c.substr(0, i);
    while (i < c.size() && is_blank(c[i])) ++i;
    if (i >= c.size() || c[i] != ':' || (i + 1 < c.size() && !is_blank(c[i + 1]))) {
      fail(line.number, "expected 'key: value'");
    }
    after_colon = i + 1;
    return key;
  }

  void check_depth(int depth, int line) const {
    if (depth > kMaxDepth) fail(line, "nested deeper than 16 levels");
  }

  void parse_map(int indent, int depth, YamlNode& node) {
    node.kind = YamlNode::Kind::kMap;
    check_depth(depth, lines_[pos_].number);
    while (pos_ < lines_.size() && lines_[pos_].indent == indent && !is_end_marker()) {
      const Line& line = lines_[pos_];
      std::size_t after = 0;
      const std::string key = key_of(line, after);
      if (node.find(key) != nullptr) fail(line.number, "'" + key + "' given twice");
      YamlNode value;
      parse_value(line, trim(line.content.substr(after)), indent, depth, key, value);
      node.entries.emplace_back(key, std::move(value));
    }
    if (pos_ < lines_.size() && lines_[pos_].indent > indent) {
      fail(lines_[pos_].number, "unexpected indentation");
    }
  }

  void parse_value(const Line& line, const std::string& rest, int indent, int depth,
                   const std::string& key, YamlNode& value) {
    value.line = line.number;
    if (rest.empty()) {
      ++pos_;
      parse_nested(indent, depth, key, line.number, value);
    } else if (rest.compare(0, 2, "!!") == 0) {
      std::size_t end = 2;
      while (end < rest.size() && is_key_char(rest[end])) ++end;
      if (end == 2 || end != rest.size()) fail(line.number, "a tag must stand alone: '!!name'");
      ++pos_;
      if (pos_ >= lines_.size() || lines_[pos_].indent <= indent) {
        fail(line.number, "'" + key + "' has a tag but no map under it");
      }
      parse_map(lines_[pos_].indent, depth + 1, value);
      value.tag = rest.substr(2);
    } else if (rest[0] == '[') {
      parse_flow_sequence(rest, depth + 1, value);
    } else if (rest[0] == '"' || rest[0] == '\'') {
      std::size_t i = 0;
      value = quoted_scalar(line.number, rest, i);
      if (i != rest.size()) fail(line.number, "text after a quoted string");
      ++pos_;
    } else {
      value = plain_scalar(line.number, rest);
      ++pos_;
    }
  }

  // "key:" alone: a block sequence or map on the following lines.
  void parse_nested(int indent, int depth, const std::string& key, int line, YamlNode& value) {
    if (pos_ < lines_.size() && !is_end_marker()) {
      const Line& next = lines_[pos_];
      const bool entry = next.content[0] == '-' && (next.content.size() == 1 || next.content[1] == ' ');
      if (entry && next.indent >= indent) return parse_block_sequence(next.indent, depth + 1, value);
      if (next.indent > indent) return parse_map(next.indent, depth + 1, value);
    }
    fail(line, "'" + key + "' has no value");
  }

  void parse_block_sequence(int indent, int depth, YamlNode& node) {
    node.kind = YamlNode::Kind::kSeq;
    check_depth(depth, lines_[pos_].number);
    while (pos_ < lines_.size() && lines_[pos_].indent == indent) {
      const Line& line = lines_[pos_];
      const std::string& c = line.content;
      if (c[0] != '-' || (c.size() > 1 && c[1] != ' ')) break;
      const std::string item = trim(c.substr(1));
      if (item.empty() || item[0] == '[' || item[0] == '-') {
        fail(line.number, "sequence entries must be single values");
      }
      std::size_t i = 0;
      if (item[0] == '"' || item[0] == '\'') {
        node.items.push_back(quoted_scalar(line.number, item, i));
        if (i != item.size()) fail(line.number, "text after a quoted string");
      } else {
        node.items.push_back(plain_scalar(line.number, item));
      }
      ++pos_;
    }
    if (pos_ < lines_.size() && lines_[pos_].indent > indent) {
      fail(lines_[pos_].number, "unexpected indentation");
    }
  }

  // "[ a, b, ... ]", continued over as many lines as it takes.
  void parse_flow_sequence(const std::string& first, int depth, YamlNode& node) {
    node.kind = YamlNode::Kind::kSeq;
    const int start_line = lines_[pos_].number;
    check_depth(depth, start_line);
    std::string buffer = first;
    std::size_t i = 1;
    int line = start_line;
    // Appends the next line when the text so far ends inside the brackets.
    auto at_end = [&]() {
      if (i < buffer.size()) return false;
      if (pos_ + 1 >= lines_.size()) fail(start_line, "unclosed '['");
      ++pos_;
      line = lines_[pos_].number;
      buffer += ' ';
      buffer += lines_[pos_].content;
      return false;
    };
    auto skip_blanks = [&]() {
      while (!at_end() && is_blank(buffer[i])) ++i;
    };
    skip_blanks();
    if (buffer[i] == ']') {
      ++i;
    } else {
      for (;;) {
        skip_blanks();
        const char c = buffer[i];
        if (c == '[' || c == '{') fail(line, "nested collections are not supported");
        if (c == ',' || c == ']') fail(line, "empty sequence entry");
        if (c == '"' || c == '\'') {
          node.items.push_back(quoted_scalar(line, buffer, i));
        } else {
          const std::size_t begin = i;
          while (!at_end() && buffer[i] != ',' && buffer[i] != ']') ++i;
          node.items.push_back(plain_scalar(line, trim(buffer.substr(begin, i - begin))));
        }
        skip_blanks();
        if (buffer[i] == ']') {
          ++i;
          break;
        }
        if (buffer[i] != ',') fail(line, "expected ',' or ']'");
        ++i;
      }
    }
    if (!trim(buffer.substr(i)).empty()) fail(line, "text after ']'");
    node.line = start_line;
    ++pos_;
  }

  std::vector<Line> lines_;
  std::size_t pos_ = 0;
};

bool is_special_real(const std::string& t) {
  std::size_t i = (t[0] == '+' || t[0] == '-') ? 1 : 0;
  const std::string rest = t.substr(i);
  if (rest == ".inf" || rest == ".Inf" || rest == ".INF") return true;
  return i == 0 && (rest == ".nan" || rest == ".NaN" || rest == ".NAN" || rest == ".Nan");
}

bool is_decimal(const std::string& t) {
  std::size_t i = (t[0] == '+' || t[0] == '-') ? 1 : 0;
  std::size_t digits = 0;
  while (i < t.size() && std::isdigit(static_cast<unsigned char>(t[i]))) ++i, ++digits;
  if (i < t.size() && t[i] == '.') {
    ++i;
    while (i < t.size() && std::isdigit(static_cast<unsigned char>(t[i]))) ++i, ++digits;
  }
  if (digits == 0) return false;
  if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
    ++i;
    if (i < t.size() && (t[i] == '+' || t[i] == '-')) ++i;
    const std::size_t exponent = i;
    while (i < t.size() && std::isdigit(static_cast<unsigned char>(t[i]))) ++i;
    if (i == exponent) return false;
  }
  return i == t.size();
}

double real_value(const std::string& t) {
  if (!is_special_real(t)) return std::strtod(t.c_str(), nullptr);
  if (t.find_first_of("nN") != std::string::npos && t.find_first_of("aA") != std::string::npos) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  return t[0] == '-' ? -HUGE_VAL : HUGE_VAL;
}

int channels_of(const std::string& dt) {
  std::size_t digits = 0;
  while (digits < dt.size() && std::isdigit(static_cast<unsigned char>(dt[digits]))) ++digits;
  return digits == 0 ? 1 : std::atoi(dt.substr(0, std::min<std::size_t>(digits, 3)).c_str());
}

// An "!!opencv-matrix" must hold exactly the data its shape declares, so
// that OpenCV never allocates for a shape the file does not fill.
void check_matrix(const YamlNode& m) {
  const YamlNode* rows = m.find("rows");
  const YamlNode* cols = m.find("cols");
  const YamlNode* dt = m.find("dt");
  const YamlNode* data = m.find("data");
  if (!rows || !cols || !dt || !data || !rows->is_integer() || !cols->is_integer() ||
      dt->kind != YamlNode::Kind::kScalar || data->kind != YamlNode::Kind::kSeq) {
    fail(m.line, "a matrix needs integer rows and cols, dt and a data sequence");
  }
  const double r = std::strtod(rows->text.c_str(), nullptr);
  const double c = std::strtod(cols->text.c_str(), nullptr);
  const double n = r * c * channels_of(dt->text);
  if (r < 0 || c < 0 || n != static_cast<double>(data->items.size())) {
    fail(m.line, "a matrix of " + rows->text + " x " + cols->text + " does not match its " +
                     std::to_string(data->items.size()) + " data entries");
  }
  for (const YamlNode& item : data->items) {
    if (!item.is_number()) fail(item.line, "matrix data must be numbers");
  }
}

// OpenCV reads any map with these keys as a matrix, tagged or not.
bool looks_like_matrix(const YamlNode& node) {
  for (const char* key : {"rows", "cols", "dt", "data"}) {
    if (node.find(key) != nullptr) return true;
  }
  return false;
}

void check_matrices(const YamlNode& node) {
  if (node.kind != YamlNode::Kind::kMap) return;
  if (!node.tag.empty() && node.tag != "opencv-matrix") {
    fail(node.line, "unsupported tag '!!" + node.tag + "' (only !!opencv-matrix)");
  }
  if (node.tag == "opencv-matrix" || looks_like_matrix(node)) check_matrix(node);
  for (const auto& entry : node.entries) check_matrices(entry.second);
}

// Writes `node` under `name` ("" inside a sequence) with OpenCV's writer.
void emit(cv::FileStorage& out, const std::string& name, const YamlNode& node) {
  switch (node.kind) {
    case YamlNode::Kind::kMap:
      out.startWriteStruct(name, cv::FileNode::MAP, node.tag);
      for (const auto& entry : node.entries) emit(out, entry.first, entry.second);
      out.endWriteStruct();
      return;
    case YamlNode::Kind::kSeq:
      out.startWriteStruct(name, cv::FileNode::SEQ | cv::FileNode::FLOW);
      for (const YamlNode& item : node.items) emit(out, std::string(), item);
      out.endWriteStruct();
      return;
    case YamlNode::Kind::kScalar:
      break;
  }
  if (node.is_integer()) {
    const double v = std::strtod(node.text.c_str(), nullptr);
    if (v >= std::numeric_limits<int>::min() && v <= std::numeric_limits<int>::max()) {
      out.write(name, static_cast<int>(v));
      return;
    }
  }
  if (node.is_number()) {
    out.write(name, real_value(node.text));
  } else {
    out.write(name, node.text);
  }
}

std::string canonical_text(const YamlNode& root) {
  cv::FileStorage out(".yml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
  for (const auto& entry : root.entries) emit(out, entry.first, entry.second);
  return out.releaseAndGetString();
}

}  // namespace

const YamlNode* YamlNode::find(const std::string& key) const {
  if (kind != Kind::kMap) return nullptr;
  for (const auto& entry : entries) {
    if (entry.first == key) return &entry.second;
  }
  return nullptr;
}

bool YamlNode::is_integer() const {
  if (kind != Kind::kScalar || quoted || text.empty()) return false;
  const std::size_t i = (text[0] == '+' || text[0] == '-') ? 1 : 0;
  return i < text.size() && text.find_first_not_of("0123456789", i) == std::string::npos;
}

bool YamlNode::is_number() const {
  if (kind != Kind::kScalar || quoted || text.empty()) return false;
  return is_decimal(text) || is_special_real(text);
}

bool parse_yaml(const std::string& text, YamlNode& root, std::string& error) {
  try {
    root = Parser(content_lines(text)).document();
    check_matrices(root);
    return true;
  } catch (const YamlError& e) {
    error = "line " + std::to_string(e.line) + ": " + e.problem;
    return false;
  }
}

bool read_yaml_file(const std::string& path, YamlNode& root, std::string& error) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (!fs::exists(status)) return error = "no such file", false;
  if (!fs::is_regular_file(status)) return error = "not a regular file", false;
  const std::uintmax_t size = fs::file_size(path, ec);
  if (ec || size > kMaxYamlBytes) return error = "larger than 1 MiB: not a YAML file of sl3d", false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return error = "cannot open for reading", false;
  std::string text(static_cast<std::size_t>(size), '\0');
  in.read(&text[0], static_cast<std::streamsize>(size));
  if (in.gcount() != static_cast<std::streamsize>(size)) return error = "read error", false;
  return parse_yaml(text, root, error);
}

bool open_yaml_storage(const std::string& path, cv::FileStorage& storage, std::string* error) {
  std::string problem;
  YamlNode root;
  storage.release();
  if (!read_yaml_file(path, root, problem)) {
    if (error != nullptr) *error = problem;
    return false;
  }
  try {
    storage.open(canonical_text(root), cv::FileStorage::READ | cv::FileStorage::MEMORY);
  } catch (const std::exception&) {
    storage.release();
  }
  if (!storage.isOpened() && error != nullptr) *error = "OpenCV cannot read its copy of the file";
  return storage.isOpened();
}

}  // namespace sl3d
