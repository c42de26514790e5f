// Internal utilities of the model-file readers and writers: the text stage of
// world files and URDF templates (parameters, arrays, arithmetic), strict
// number reading with located messages, and the number format of every file
// the library writes.
#ifndef VORSIM_INTERNAL_HELPERS_HPP
#define VORSIM_INTERNAL_HELPERS_HPP

#include <string>
#include <unordered_map>
#include <vector>

#include "vorsim/VorSimTinyXmlWrapper.hpp"
#include "vorsim/math.hpp"

namespace vorsim {

// Value of an arithmetic expression: numbers (also with an exponent), "pi",
// sin, cos, log and exp of a parenthesis, parentheses, + - * / with the usual
// precedence and left association, and a unary minus at the start or after an
// operator. A name it does not know is the fatal message "Unknown math
// expression: " + expression; a count of operators that is not one fewer than
// the operands is "invalid math expression. Operator and operand number
// mistmatch.". After a fatal message whose callback returns, NaN.
double evaluateMathExpression(const std::string& expression);

// The text between the first two double quotes at or after pos (empty when
// there are fewer). With check, a text holding "@@" is the fatal message
// "Unresolved param " + that text.
std::string getQuotation(const std::string& text, size_t pos, bool check);

// The shortest decimal text that reads back as exactly the same double ("14",
// "0.1", "1.5707963267948966", "1e-300"). Every number the library writes to
// a model file goes through it, so that a written file reads back bit for bit.
std::string formatNumber(double value);

// The directory part of a path (before the last separator), or "." when there
// is none.
std::string directoryOf(const std::string& path);
// `name` if it names an existing file; else `directory/name` if that exists;
// else the empty string.
std::string findFile(const std::string& name, const std::string& directory);

// The text stage of a configuration file, on the file's whole text:
//   1. "[THIS_DIR]" becomes the file's directory;
//   2. every "@@name" of a parameter declared under <params> in the root
//      (each child's name, with its "value" attribute as the default) or given
//      in `params` becomes the value; the caller's value wins;
//   3. every <array name="i" start="s" increment="d" count="n"> element is
//      replaced by its body written n times, with "@@i" standing for
//      s, s + d, ..., s + (n-1) d (nested arrays work; attribute values may be
//      {expressions});
//   4. a "@@" left over is the fatal message "Unresolved param NAME in PATH";
//   5. every {expression} is replaced by its value (formatNumber).
// `openFailure` is the text of the fatal message for a file that cannot be
// read, followed by the path. Returns the expanded text (empty after a fatal
// message whose callback returns).
std::string expandConfigText(const std::string& path, const std::unordered_map<std::string, std::string>& params,
                             const std::string& openFailure);

// Strict readers over VorSimTinyXmlWrapper: text that is not a number, in
// full, is a located fatal message naming the attribute, instead of a silent 0
// or an exception.
namespace xml {
bool parseDouble(const std::string& text, double& out);
// Numbers split as the XML layer splits vectors (comma, else blanks).
bool parseNumbers(const std::string& text, std::vector<double>& out);
bool readNumberIfExists(const VorSimTinyXmlWrapper& e, const std::string& attribute, double& out);
double readNumber(const VorSimTinyXmlWrapper& e, const std::string& attribute);
bool readNumbersIfExists(const VorSimTinyXmlWrapper& e, const std::string& attribute, std::vector<double>& out);
// Exactly n numbers, else a located message.
template <size_t n>
bool readVectorIfExists(const VorSimTinyXmlWrapper& e, const std::string& attribute, Mat<n, 1>& out) {
  std::vector<double> items;
  if (!readNumbersIfExists(e, attribute, items)) return false;
  if (items.size() != n) {
    e.errorMessage("the attribute '" + attribute + "' should have " + std::to_string(n) + " numbers, not " +
                   std::to_string(items.size()));
    return false;
  }
  for (size_t i = 0; i < n; ++i) out[i] = items[i];
  return true;
}
template <size_t n>
Mat<n, 1> readVector(const VorSimTinyXmlWrapper& e, const std::string& attribute) {
  Mat<n, 1> value;
  value.setZero();
  std::string text;
  if (!e.getAttributeIfExists(attribute, text)) {
    e.getAttributeMust<std::string>(attribute);  // the located "does not contain an attribute" message
    return value;
  }
  readVectorIfExists(e, attribute, value);
  return value;
}
}  // namespace xml

}  // namespace vorsim

#endif  // VORSIM_INTERNAL_HELPERS_HPP
