// A file path normalised into one canonical form: anti-separators replaced,
// parent references resolved, doubled separators collapsed. On Linux the
// separator is "/" and the anti-separator "\\"; elsewhere the roles swap.
#ifndef VORSIM_PATH_HPP
#define VORSIM_PATH_HPP

#include <string>

namespace vorsim {

class Path {
 public:
  Path() = default;
  // An invalid path (a ".." that starts below index 3) is a fatal message.
  Path(const std::string& path, bool alreadyNormalised = false);  // NOLINT: paths convert from text

  static void replaceAntiSeparatorWithSeparator(std::string& path);
  static std::string separator();

  // Text before the last separator; an empty Path when there is none.
  Path getDirectory() const;
  // Text after the last separator; the whole path when there is none.
  std::string getFileName() const;
  // Text after the last "." (the search ignores separators); the whole path
  // when there is no dot.
  std::string getFileExtension() const;
  // The innermost directory's name: the text between the last two separators,
  // or from the start up to the only one.
  Path getTopDirectory() const;
  bool fileExists() const;

  // Path, separator, other path.
  Path operator+(const Path& other) const;
  // Path immediately followed by s. A two-character s whose second character is
  // the separator appends the separator alone. An empty s throws
  // std::out_of_range.
  Path operator+(const std::string& s) const;

  const std::string& getString() const { return path_; }
  operator std::string() const { return path_; }  // NOLINT
  bool operator==(const Path& other) const { return path_ == other.path_; }

 private:
  std::string path_;
};

// The text between the first ">" and the last "<": an element's inner text.
std::string getContents(const std::string& xmlText);

}  // namespace vorsim

#endif  // VORSIM_PATH_HPP
