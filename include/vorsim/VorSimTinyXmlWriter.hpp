// A small XML tree writer: elements with attributes and children are built in
// memory, then linked into a TinyXML document and saved. Numbers are written
// in the shortest text that reads back as the same double, vectors as numbers
// separated by commas, so a written file reads back bit for bit.
#ifndef VORSIM_VORSIMTINYXMLWRITER_HPP
#define VORSIM_VORSIMTINYXMLWRITER_HPP

#include <tinyxml.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "vorsim/math.hpp"

namespace vorsim {

class VorSimTinyXmlWriterElement {
 public:
  explicit VorSimTinyXmlWriterElement(std::string name = std::string()) : name_(std::move(name)) {}

  // The first child of that name, made (and appended) if there is none.
  VorSimTinyXmlWriterElement& operator[](const std::string& name);
  // Always a new child, appended, even when one of that name exists.
  VorSimTinyXmlWriterElement& appendChild(const std::string& name);

  // Sets (or replaces) an attribute; returns the element so that calls chain.
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, const std::string& value);
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, const char* value);
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, int value);
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, double value);
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, size_t value);
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, uint32_t value);
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, bool value);
  template <size_t n, size_t m>
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, const Mat<n, m>& value) {
    return setAttribute(name, value.v, n * m);
  }
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, const Eigen::Vector3d& value);
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, const VecDyn& value);
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, const std::vector<double>& value);
  // count numbers from values, comma separated.
  VorSimTinyXmlWriterElement& setAttribute(const std::string& name, const double* values, size_t count);

  const std::string& getName() const { return name_; }
  const std::vector<std::pair<std::string, std::string>>& getAttributes() const { return attributes_; }
  std::vector<VorSimTinyXmlWriterElement>& getChildren() { return children_; }
  const std::vector<VorSimTinyXmlWriterElement>& getChildren() const { return children_; }
  // The attribute's text, or null.
  const std::string* findAttribute(const std::string& name) const;

  // Builds this element and its subtree in the TinyXML tree, under `parent`.
  void link(TiXmlNode& parent) const;

 private:
  std::string name_;
  std::vector<std::pair<std::string, std::string>> attributes_;
  std::vector<VorSimTinyXmlWriterElement> children_;
};

class VorSimTinyXmlWriter {
 public:
  // A document with the declaration <?xml version="1.0"?> and a root element.
  explicit VorSimTinyXmlWriter(const std::string& rootName);

  VorSimTinyXmlWriterElement& getRoot() { return root_; }
  VorSimTinyXmlWriterElement& operator[](const std::string& name) { return root_[name]; }

  // Prints "Saving world to: PATH" as information and writes the file. A file
  // that cannot be written is the fatal message "failed to save file: PATH.
  // Make sure the directory exists". Returns whether the file was written.
  bool saveFile(const std::string& path);
  // The document as text, as saveFile would write it.
  std::string toString() const;

 private:
  void buildDocument(TiXmlDocument& document) const;

  VorSimTinyXmlWriterElement root_;
};

}  // namespace vorsim

#endif  // VORSIM_VORSIMTINYXMLWRITER_HPP
