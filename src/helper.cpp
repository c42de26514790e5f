// The text stage of configuration files and the small readers and formatters
// that every model-file reader and writer shares.
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

#include "helpers.hpp"
#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

// ------------------------------------------------------------ arithmetic --

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isNameChar(char c) { return isLetter(c) || isDigit(c) || c == '_'; }

// Reads one expression; every failure sends its fatal message once and makes
// the whole evaluation fail.
class ExpressionReader {
 public:
  explicit ExpressionReader(const std::string& whole) : whole_(whole) {}

  bool evaluate(const std::string& s, double& result) {
    std::vector<double> values;
    std::vector<char> operators;
    size_t i = 0;
    while (true) {
      skipBlanks(s, i);
      if (i == s.size()) break;
      bool negate = false;
      if (s[i] == '-') {
        negate = true;
        ++i;
        skipBlanks(s, i);
        if (i == s.size()) break;
      }
      double value = 0.0;
      if (!readOperand(s, i, value)) return false;
      values.push_back(negate ? -value : value);
      skipBlanks(s, i);
      if (i == s.size()) break;
      const char c = s[i];
      if (c == '+' || c == '-' || c == '*' || c == '/') {
        operators.push_back(c);
        ++i;
      }
    }
    if (operators.size() + 1 != values.size()) {
      MSG_FATAL("invalid math expression. Operator and operand number mistmatch.");
      return false;
    }

    // Products and quotients first, from the left; then sums and differences.
    std::vector<double> terms{values[0]};
    std::vector<char> signs;
    for (size_t k = 0; k < operators.size(); ++k) {
      const double next = values[k + 1];
      switch (operators[k]) {
        case '*':
          terms.back() *= next;
          break;
        case '/':
          terms.back() /= next;
          break;
        default:
          signs.push_back(operators[k]);
          terms.push_back(next);
      }
    }
    result = terms[0];
    for (size_t k = 0; k < signs.size(); ++k) result = signs[k] == '+' ? result + terms[k + 1] : result - terms[k + 1];
    return true;
  }

 private:
  static void skipBlanks(const std::string& s, size_t& i) {
    while (i < s.size() && isBlank(s[i])) ++i;
  }

  bool unknown() const {
    MSG_FATAL("Unknown math expression: " << whole_);
    return false;
  }

  // The inside of the parenthesis opening at s[i]; i ends behind it.
  bool readParenthesis(const std::string& s, size_t& i, double& value) {
    int depth = 0;
    for (size_t k = i; k < s.size(); ++k) {
      if (s[k] == '(') ++depth;
      if (s[k] == ')' && --depth == 0) {
        const std::string inside = s.substr(i + 1, k - i - 1);
        i = k + 1;
        return evaluate(inside, value);
      }
    }
    return unknown();
  }

  bool readOperand(const std::string& s, size_t& i, double& value) {
    const char c = s[i];
    if (isDigit(c) || c == '.') {
      const size_t begin = i;
      while (i < s.size() && (isDigit(s[i]) || s[i] == '.')) ++i;
      // An exponent, as parameters written by programs often carry one.
      if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        size_t k = i + 1;
        if (k < s.size() && (s[k] == '+' || s[k] == '-')) ++k;
        if (k < s.size() && isDigit(s[k])) {
          while (k < s.size() && isDigit(s[k])) ++k;
          i = k;
        }
      }
      if (!xml::parseDouble(s.substr(begin, i - begin), value)) return unknown();
      return true;
    }
    if (c == '(') return readParenthesis(s, i, value);
    if (isLetter(c)) {
      const size_t begin = i;
      while (i < s.size() && isLetter(s[i])) ++i;
      const std::string name = s.substr(begin, i - begin);
      if (name == "pi") {
        value = M_PI;
        return true;
      }
      if (name != "sin" && name != "cos" && name != "log" && name != "exp") return unknown();
      skipBlanks(s, i);
      if (i == s.size() || s[i] != '(') return unknown();
      double argument = 0.0;
      if (!readParenthesis(s, i, argument)) return false;
      if (name == "sin")
        value = std::sin(argument);
      else if (name == "cos")
        value = std::cos(argument);
      else if (name == "log")
        value = std::log(argument);
      else
        value = std::exp(argument);
      return true;
    }
    return unknown();
  }

  const std::string& whole_;
};

}  // namespace

double evaluateMathExpression(const std::string& expression) {
  ExpressionReader reader(expression);
  double value = 0.0;
  if (!reader.evaluate(expression, value)) return std::numeric_limits<double>::quiet_NaN();
  return value;
}

std::string getQuotation(const std::string& text, size_t pos, bool check) {
  const size_t first = text.find('"', pos);
  if (first == std::string::npos) return std::string();
  const size_t second = text.find('"', first + 1);
  if (second == std::string::npos) return std::string();
  std::string quoted = text.substr(first + 1, second - first - 1);
  if (check && quoted.find("@@") != std::string::npos) MSG_FATAL("Unresolved param " << quoted);
  return quoted;
}

std::string formatNumber(double value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return std::string(buffer, result.ptr);
}

// ----------------------------------------------------------------- paths --

std::string directoryOf(const std::string& path) {
  std::string p = path;
  for (char& c : p)
    if (c == '\\') c = '/';
  const size_t last = p.rfind('/');
  if (last == std::string::npos) return ".";
  if (last == 0) return "/";
  return p.substr(0, last);
}

std::string findFile(const std::string& name, const std::string& directory) {
  if (name.empty()) return std::string();
  if (std::ifstream(name).good()) return name;
  if (!directory.empty() && name[0] != '/') {
    const std::string joined = directory + "/" + name;
    if (std::ifstream(joined).good()) return joined;
  }
  return std::string();
}

// ------------------------------------------------------------ text stage --

namespace {

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t p = text.find(from); p != std::string::npos; p = text.find(from, p + to.size()))
    text.replace(p, from.size(), to);
}

// Where an offset of the text lies, in the head that located messages share.
std::string locationOf(const std::string& path, const std::string& text, size_t offset, const std::string& node) {
  size_t row = 1, lineStart = 0;
  for (size_t k = 0; k < offset && k < text.size(); ++k)
    if (text[k] == '\n') {
      ++row;
      lineStart = k + 1;
    }
  return "in '" + path + "' at row:" + std::to_string(row) + " col:" + std::to_string(offset - lineStart + 1) +
         ", the node '" + node + "'";
}

// The next opening tag `<name` at or after from (followed by a blank, '>' or
// '/', so that "<arrays" is no "<array").
size_t findTag(const std::string& text, const std::string& name, size_t from) {
  for (size_t p = text.find("<" + name, from); p != std::string::npos; p = text.find("<" + name, p + 1)) {
    const size_t after = p + 1 + name.size();
    if (after < text.size() && (isBlank(text[after]) || text[after] == '>' || text[after] == '/')) return p;
  }
  return std::string::npos;
}

// Replaces "@@name" (the whole name: the next character is no name
// character) by the name's value. True when anything changed.
bool substitute(std::string& text, const std::unordered_map<std::string, std::string>& values) {
  bool changed = false;
  size_t p = text.find("@@");
  while (p != std::string::npos) {
    size_t end = p + 2;
    while (end < text.size() && isNameChar(text[end])) ++end;
    const auto it = values.find(text.substr(p + 2, end - p - 2));
    if (it != values.end()) {
      text.replace(p, end - p, it->second);
      changed = true;
      p = text.find("@@", p + it->second.size());
    } else {
      p = text.find("@@", p + 2);
    }
  }
  return changed;
}

// The attributes name="value" of an opening tag's text.
std::unordered_map<std::string, std::string> tagAttributes(const std::string& tag) {
  std::unordered_map<std::string, std::string> attributes;
  size_t i = 0;
  while (i < tag.size()) {
    while (i < tag.size() && !isNameChar(tag[i])) ++i;
    const size_t begin = i;
    while (i < tag.size() && isNameChar(tag[i])) ++i;
    const std::string name = tag.substr(begin, i - begin);
    while (i < tag.size() && isBlank(tag[i])) ++i;
    if (name.empty() || i == tag.size() || tag[i] != '=') continue;
    const size_t open = tag.find_first_of("\"'", i);
    if (open == std::string::npos) break;
    const size_t close = tag.find(tag[open], open + 1);
    if (close == std::string::npos) break;
    attributes[name] = tag.substr(open + 1, close - open - 1);
    i = close + 1;
  }
  return attributes;
}

class TextExpander {
 public:
  TextExpander(const std::string& path, std::string& text) : path_(path), text_(text) {}

  bool substituteParameters(const std::unordered_map<std::string, std::string>& params) {
    std::unordered_map<std::string, std::string> values;
    const size_t start = findTag(text_, "params", 0);
    if (start != std::string::npos && !readDeclaredParameters(start, params, values)) return false;
    // Parameters that the caller gives without a declaration are used too.
    for (const auto& entry : params) values.emplace(entry.first, entry.second);
    // A value may name another parameter; a cycle stops here and is reported
    // as unresolved.
    for (int pass = 0; pass < 64 && substitute(text_, values); ++pass) {
    }
    return true;
  }

  bool expandArrays() {
    for (size_t start = findTag(text_, "array", 0); start != std::string::npos;
         start = findTag(text_, "array", start)) {
      if (!expandArray(start)) return false;
    }
    return true;
  }

  bool checkResolved() const {
    const size_t p = text_.find("@@");
    if (p == std::string::npos) return true;
    size_t end = p + 2;
    while (end < text_.size() && isNameChar(text_[end])) ++end;
    MSG_FATAL("Unresolved param " << text_.substr(p + 2, end - p - 2) << " in " << path_);
    return false;
  }

  bool evaluateExpressions() {
    for (size_t open = text_.find('{'); open != std::string::npos; open = text_.find('{', open)) {
      const size_t close = text_.find('}', open);
      if (close == std::string::npos) {
        MSG_FATAL(locationOf(path_, text_, open, "{") << ": the expression has no closing '}'");
        return false;
      }
      // A failed expression has sent its message; under a callback that
      // returns, its NaN stands in the text.
      const double value = evaluateMathExpression(text_.substr(open + 1, close - open - 1));
      const std::string printed = formatNumber(value);
      text_.replace(open, close - open + 1, printed);
      open += printed.size();
    }
    return true;
  }

 private:
  bool readDeclaredParameters(size_t start, const std::unordered_map<std::string, std::string>& params,
                              std::unordered_map<std::string, std::string>& values) {
    const size_t tagEnd = text_.find('>', start);
    if (tagEnd == std::string::npos) return parameterListError(start, "the element is not closed");
    if (text_[tagEnd - 1] == '/') return true;  // <params/>
    const size_t end = text_.find("</params>", tagEnd);
    if (end == std::string::npos) return parameterListError(start, "the element is not closed");
    TiXmlDocument document;
    document.Parse(text_.substr(start, end + 9 - start).c_str());
    const TiXmlElement* list = document.FirstChildElement("params");
    if (document.Error() || list == nullptr)
      return parameterListError(start, std::string("the parameter list does not parse: ") + document.ErrorDesc());
    for (const TiXmlElement* p = list->FirstChildElement(); p != nullptr; p = p->NextSiblingElement()) {
      const auto given = params.find(p->ValueStr());
      if (given != params.end()) {
        values[p->ValueStr()] = given->second;
      } else if (const char* value = p->Attribute("value")) {
        values[p->ValueStr()] = value;
      }
    }
    return true;
  }

  bool parameterListError(size_t offset, const std::string& message) const {
    MSG_FATAL(locationOf(path_, text_, offset, "params") << ": " << message);
    return false;
  }

  bool arrayError(size_t offset, const std::string& message) const {
    MSG_FATAL(locationOf(path_, text_, offset, "array") << message);
    return false;
  }

  // An attribute of the array's opening tag as a number ({expressions} allowed).
  bool arrayNumber(size_t offset, const std::unordered_map<std::string, std::string>& attributes,
                   const std::string& name, bool required, double& out) {
    const auto it = attributes.find(name);
    if (it == attributes.end()) {
      if (required) return arrayError(offset, " does not contain an attribute called '" + name + "'");
      return true;
    }
    std::string text = it->second;
    if (text.size() >= 2 && text.front() == '{' && text.back() == '}') {
      out = evaluateMathExpression(text.substr(1, text.size() - 2));
      return !std::isnan(out);
    }
    if (!xml::parseDouble(text, out))
      return arrayError(offset, ": the attribute '" + name + "' is not a number: '" + text + "'");
    return true;
  }

  bool expandArray(size_t start) {
    const size_t tagEnd = text_.find('>', start);
    if (tagEnd == std::string::npos) return arrayError(start, ": array end not found");
    const bool selfClosed = text_[tagEnd - 1] == '/';
    size_t bodyEnd = tagEnd + 1, end = tagEnd + 1;
    if (!selfClosed) {
      int depth = 1;
      size_t pos = tagEnd + 1;
      while (true) {
        const size_t close = text_.find("</array>", pos);
        if (close == std::string::npos) return arrayError(start, ": array end not found");
        const size_t open = findTag(text_, "array", pos);
        if (open != std::string::npos && open < close) {
          const size_t innerEnd = text_.find('>', open);
          if (innerEnd != std::string::npos && text_[innerEnd - 1] != '/') ++depth;
          pos = open + 6;
          continue;
        }
        pos = close + 8;
        if (--depth == 0) {
          bodyEnd = close;
          end = pos;
          break;
        }
      }
    }

    const auto attributes = tagAttributes(text_.substr(start + 6, tagEnd - start - 6));
    double first = 0.0, increment = 1.0, count = 0.0;
    if (!arrayNumber(start, attributes, "start", false, first) ||
        !arrayNumber(start, attributes, "increment", false, increment) ||
        !arrayNumber(start, attributes, "count", true, count))
      return false;
    if (count < 0.0 || count != std::floor(count))
      return arrayError(start, ": the attribute 'count' must be a whole number of repetitions");
    const auto name = attributes.find("name");
    if (name == attributes.end()) return arrayError(start, " does not contain an attribute called 'name'");

    const std::string body = selfClosed ? std::string() : text_.substr(tagEnd + 1, bodyEnd - tagEnd - 1);
    std::string expanded;
    for (size_t k = 0; k < size_t(count); ++k) {
      std::string copy = body;
      substitute(copy, {{name->second, formatNumber(first + double(k) * increment)}});
      expanded += copy;
    }
    text_.replace(start, end - start, expanded);
    return true;
  }

  const std::string& path_;
  std::string& text_;
};

}  // namespace

std::string expandConfigText(const std::string& path, const std::unordered_map<std::string, std::string>& params,
                             const std::string& openFailure) {
  std::ifstream file(path);
  if (!file.is_open()) {
    MSG_FATAL(openFailure << path);
    return std::string();
  }
  std::stringstream buffer;
  buffer << file.rdbuf();
  std::string text = buffer.str();

  replaceAll(text, "[THIS_DIR]", directoryOf(path));
  TextExpander expander(path, text);
  if (!expander.substituteParameters(params) || !expander.expandArrays() || !expander.checkResolved() ||
      !expander.evaluateExpressions())
    return std::string();
  return text;
}

// ------------------------------------------------------- strict numbers --

namespace xml {

bool parseDouble(const std::string& text, double& out) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(begin, &end);
  if (end == begin || errno == ERANGE) return false;
  while (isBlank(*end)) ++end;
  if (*end != '\0') return false;
  out = value;
  return true;
}

bool parseNumbers(const std::string& text, std::vector<double>& out) {
  std::vector<std::string> items;
  if (text.find(',') != std::string::npos) {
    size_t start = 0;
    while (true) {
      const size_t comma = text.find(',', start);
      items.push_back(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
      if (comma == std::string::npos) break;
      start = comma + 1;
    }
  } else {
    size_t i = 0;
    while (i < text.size()) {
      while (i < text.size() && isBlank(text[i])) ++i;
      const size_t begin = i;
      while (i < text.size() && !isBlank(text[i])) ++i;
      if (i > begin) items.push_back(text.substr(begin, i - begin));
    }
  }
  std::vector<double> values(items.size());
  for (size_t k = 0; k < items.size(); ++k)
    if (!parseDouble(items[k], values[k])) return false;
  out = std::move(values);
  return true;
}

bool readNumberIfExists(const VorSimTinyXmlWrapper& e, const std::string& attribute, double& out) {
  std::string text;
  if (!e.getAttributeIfExists(attribute, text)) return false;
  double value = 0.0;
  if (!parseDouble(text, value)) {
    e.errorMessage("the attribute '" + attribute + "' is not a number: '" + text + "'");
    return false;
  }
  out = value;
  return true;
}

double readNumber(const VorSimTinyXmlWrapper& e, const std::string& attribute) {
  double value = 0.0;
  const std::string text = e.getAttributeMust<std::string>(attribute);
  if (!parseDouble(text, value)) e.errorMessage("the attribute '" + attribute + "' is not a number: '" + text + "'");
  return value;
}

bool readNumbersIfExists(const VorSimTinyXmlWrapper& e, const std::string& attribute, std::vector<double>& out) {
  std::string text;
  if (!e.getAttributeIfExists(attribute, text)) return false;
  if (!parseNumbers(text, out)) {
    e.errorMessage("the attribute '" + attribute + "' holds text that is not a number: '" + text + "'");
    return false;
  }
  return true;
}

}  // namespace xml

}  // namespace vorsim
