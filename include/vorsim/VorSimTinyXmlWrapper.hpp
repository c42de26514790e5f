// A handle on one element of a parsed XML document, used by every reader of an
// XML file. It adds typed attribute access (several numbers in one attribute
// become a Mat or VecDyn) and fatal messages that name the file, row, column,
// node and attribute at fault.
//
// Ownership: the wrapper made from a file or text owns the document; wrappers
// for child elements point into that document and must not outlive it, nor
// be used after a removeFirstChild that takes their element out of the
// document. Copying an owning wrapper copies the whole document and re-locates the
// element inside the copy, so the copy is independent of the original and may
// outlive it. Copying a child wrapper copies the pointer only.
//
// After a fatal message whose callback returns, every operation returns a safe
// default (zero, empty text, empty vector, false) and leaves targets untouched.
#ifndef VORSIM_VORSIMTINYXMLWRAPPER_HPP
#define VORSIM_VORSIMTINYXMLWRAPPER_HPP

#include <tinyxml.h>

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

#include "vorsim/math.hpp"

namespace vorsim {

class VorSimTinyXmlWrapper {
 public:
  // A dummy node: no element, empty names. Most operations on it are fatal.
  VorSimTinyXmlWrapper() = default;
  // A non-empty string holding any '<' is XML text, anything else a file path.
  // The element is the document's first top-level element named rootName. A
  // file that cannot be read, text that does not parse, or a missing root is a
  // fatal message, and the wrapper stays a dummy node.
  VorSimTinyXmlWrapper(std::string const& fileOrXml, std::string const& rootName);
  // XML text that came from the file sourceName (after the file's own text
  // stage, say): parsed as text, with messages naming sourceName.
  VorSimTinyXmlWrapper(std::string const& xmlText, std::string const& rootName, std::string const& sourceName);
  VorSimTinyXmlWrapper(VorSimTinyXmlWrapper const& other);
  VorSimTinyXmlWrapper& operator=(VorSimTinyXmlWrapper const& other);
  ~VorSimTinyXmlWrapper() = default;

  bool isDummy() const { return element_ == nullptr; }

  // ---- navigation ----
  // Child elements with that name (or all of them), in document order.
  std::vector<VorSimTinyXmlWrapper> getChildren(std::string const& name) const;
  std::vector<VorSimTinyXmlWrapper> getChildren() const;
  // As getChildren; an empty result is a located fatal message.
  std::vector<VorSimTinyXmlWrapper> getChildrenMust(std::string const& name) const;
  std::vector<VorSimTinyXmlWrapper> getChildrenMust() const;
  // Removes the first child element with that name from the document. False
  // when there is none.
  bool removeFirstChild(std::string const& name);
  // Element names from the document root down to this one, each followed by "/".
  std::string getFullTree() const;
  // A fatal message located at this element, ending in ": " + msg.
  void errorMessage(std::string const& msg) const;

  const std::string& getFileName() const { return fileName_; }
  const std::vector<std::string>& getPath() const { return path_; }
  // The element's name; empty for a dummy node.
  std::string getName() const;
  // Row and column of the element in its source, counted from 1; 0 for a dummy.
  int getRow() const;
  int getColumn() const;

  // ---- attributes ----
  // T is int, double, size_t, std::string, VecDyn or Mat<n,1>. A missing
  // attribute is a located fatal message.
  template <typename T>
  T getAttributeMust(std::string const& name) const {
    T value{};
    readMust(name, value);
    return value;
  }

  // True and the value when the attribute exists; otherwise false and the
  // target untouched. A dummy node answers false without a message.
  bool getAttributeIfExists(std::string const& name, int& value) const;
  bool getAttributeIfExists(std::string const& name, double& value) const;
  bool getAttributeIfExists(std::string const& name, std::string& value) const;
  bool getAttributeIfExists(std::string const& name, size_t& value) const;
  // Any number of items; the length follows the text.
  bool getAttributeIfExists(std::string const& name, std::vector<double>& value) const;
  bool getAttributeIfExists(std::string const& name, VecDyn& value) const;
  // Exactly n items, otherwise the dimension message (and false).
  template <size_t n>
  bool getAttributeIfExists(std::string const& name, Mat<n, 1>& value) const {
    std::vector<double> items;
    if (!readVector(name, n, items, false)) return false;
    for (size_t i = 0; i < n; ++i) value[i] = items[i];
    return true;
  }
  // The first name if present, else the second.
  template <typename T>
  bool getAttributeIfExists(std::string const& name1, std::string const& name2, T& value) const {
    return getAttributeIfExists(name1, value) || getAttributeIfExists(name2, value);
  }

  // T is std::string or char const*.
  template <typename T>
  void setAttribute(std::string const& name, T value) {
    static_assert(std::is_convertible_v<T, std::string>, "setAttribute takes text only");
    setAttributeText(name, std::string(value));
  }

 private:
  // A wrapper for a child element of a document owned elsewhere.
  VorSimTinyXmlWrapper(TiXmlElement* element, std::string fileName, std::vector<std::string> path);

  // True (and a fatal message) for a dummy node.
  bool failIfDummy() const;
  std::string locationHead() const;
  void missingAttribute(std::string const& name) const;
  std::vector<VorSimTinyXmlWrapper> collectChildren(const char* name) const;
  // This wrapper's element inside the document `other` owns, found again in
  // this wrapper's own (freshly copied) document.
  TiXmlElement* relocate(VorSimTinyXmlWrapper const& other);
  void setAttributeText(std::string const& name, std::string const& value);

  void readMust(std::string const& name, int& value) const;
  void readMust(std::string const& name, double& value) const;
  void readMust(std::string const& name, size_t& value) const;
  void readMust(std::string const& name, std::string& value) const;
  void readMust(std::string const& name, VecDyn& value) const;
  template <size_t n>
  void readMust(std::string const& name, Mat<n, 1>& value) const {
    std::vector<double> items;
    if (!readVector(name, n, items, true)) return;
    for (size_t i = 0; i < n; ++i) value[i] = items[i];
  }

  // Parses the attribute's numbers into `items`. `expected` of 0 means any
  // count; otherwise a different count is the dimension message. With `must`,
  // a missing attribute is the located message. False when nothing usable came.
  bool readVector(std::string const& name, size_t expected, std::vector<double>& items, bool must) const;
  // The attribute's text, or null when the node is dummy or it is missing.
  const std::string* rawAttribute(std::string const& name) const;
  bool parseSize(std::string const& name, std::string const& text, size_t& value) const;

  TiXmlDocument document_;
  TiXmlElement* element_ = nullptr;
  std::string fileName_;
  std::vector<std::string> path_;
};

}  // namespace vorsim

#endif  // VORSIM_VORSIMTINYXMLWRAPPER_HPP
