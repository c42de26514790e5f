#include "vorsim/Path.hpp"

#include <fstream>

#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

#ifdef _WIN32
static constexpr char kSeparator = '\\';
static constexpr char kAntiSeparator = '/';
#else
static constexpr char kSeparator = '/';
static constexpr char kAntiSeparator = '\\';
#endif

std::string Path::separator() { return std::string(1, kSeparator); }

void Path::replaceAntiSeparatorWithSeparator(std::string& path) {
  for (char& c : path)
    if (c == kAntiSeparator) c = kSeparator;
}

Path::Path(const std::string& path, bool alreadyNormalised) : path_(path) {
  replaceAntiSeparatorWithSeparator(path_);
  if (alreadyNormalised) return;

  // Resolve parent references. The search is a plain substring search, so a
  // name such as "a..b" counts as one too.
  for (size_t p = path_.find(".."); p != std::string::npos; p = path_.find("..")) {
    if (p < 3) {
      MSG_FATAL("\"" << path << "\" is an invalid path");
      break;  // a callback that returns gets the path as far as it was resolved
    }
    const std::string before = path_.substr(0, p - 1);
    const size_t q = before.rfind(kSeparator);
    if (q == std::string::npos) {
      // "dir/../rest": the whole prefix goes, with the separator after "..".
      const size_t end = (p + 2 < path_.size() && path_[p + 2] == kSeparator) ? p + 3 : p + 2;
      path_.erase(0, end);
    } else {
      path_.erase(q, p + 2 - q);
    }
  }

  const std::string doubled(2, kSeparator);
  for (size_t p = path_.find(doubled); p != std::string::npos; p = path_.find(doubled)) path_.erase(p, 1);
}

Path Path::getDirectory() const {
  const size_t p = path_.rfind(kSeparator);
  if (p == std::string::npos) return Path();
  return Path(path_.substr(0, p));
}

std::string Path::getFileName() const {
  const size_t p = path_.rfind(kSeparator);
  return p == std::string::npos ? path_ : path_.substr(p + 1);
}

std::string Path::getFileExtension() const {
  const size_t p = path_.rfind('.');
  return p == std::string::npos ? path_ : path_.substr(p + 1);
}

Path Path::getTopDirectory() const {
  const size_t last = path_.rfind(kSeparator);
  if (last == std::string::npos) return Path();
  if (last == 0) return Path();
  const size_t prev = path_.rfind(kSeparator, last - 1);
  if (prev == std::string::npos) return Path(path_.substr(0, last), true);
  return Path(path_.substr(prev + 1, last - prev - 1), true);
}

bool Path::fileExists() const {
  std::ifstream f(path_);
  return f.good();
}

Path Path::operator+(const Path& other) const { return Path(path_ + separator() + other.path_, true); }

Path Path::operator+(const std::string& s) const {
  if (s.substr(1) == separator()) return Path(path_ + separator(), true);
  return Path(path_ + s, true);
}

std::string getContents(const std::string& xmlText) {
  const size_t first = xmlText.find('>');
  const size_t last = xmlText.rfind('<');
  if (first == std::string::npos || last == std::string::npos || last <= first) return std::string();
  return xmlText.substr(first + 1, last - first - 1);
}

}  // namespace vorsim
