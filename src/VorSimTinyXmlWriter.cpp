#include "vorsim/VorSimTinyXmlWriter.hpp"

#include <fstream>

#include "helpers.hpp"
#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::operator[](const std::string& name) {
  for (VorSimTinyXmlWriterElement& c : children_)
    if (c.name_ == name) return c;
  return appendChild(name);
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::appendChild(const std::string& name) {
  children_.emplace_back(name);
  return children_.back();
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name,
                                                                     const std::string& value) {
  for (auto& attribute : attributes_)
    if (attribute.first == name) {
      attribute.second = value;
      return *this;
    }
  attributes_.emplace_back(name, value);
  return *this;
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name, const char* value) {
  return setAttribute(name, std::string(value));
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name, int value) {
  return setAttribute(name, std::to_string(value));
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name, double value) {
  return setAttribute(name, formatNumber(value));
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name, size_t value) {
  return setAttribute(name, std::to_string(value));
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name, uint32_t value) {
  return setAttribute(name, std::to_string(value));
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name, bool value) {
  return setAttribute(name, std::string(value ? "true" : "false"));
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name,
                                                                     const Eigen::Vector3d& value) {
  return setAttribute(name, value.data(), 3);
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name, const VecDyn& value) {
  return setAttribute(name, value.v, value.n);
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name,
                                                                     const std::vector<double>& value) {
  return setAttribute(name, value.data(), value.size());
}

VorSimTinyXmlWriterElement& VorSimTinyXmlWriterElement::setAttribute(const std::string& name, const double* values,
                                                                     size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    if (i) text += ',';
    text += formatNumber(values[i]);
  }
  return setAttribute(name, text);
}

const std::string* VorSimTinyXmlWriterElement::findAttribute(const std::string& name) const {
  for (const auto& attribute : attributes_)
    if (attribute.first == name) return &attribute.second;
  return nullptr;
}

void VorSimTinyXmlWriterElement::link(TiXmlNode& parent) const {
  TiXmlElement element(name_);
  for (const auto& attribute : attributes_) element.SetAttribute(attribute.first, attribute.second);
  TiXmlNode* linked = parent.InsertEndChild(element);
  for (const VorSimTinyXmlWriterElement& c : children_) c.link(*linked);
}

VorSimTinyXmlWriter::VorSimTinyXmlWriter(const std::string& rootName) : root_(rootName) {}

void VorSimTinyXmlWriter::buildDocument(TiXmlDocument& document) const {
  document.InsertEndChild(TiXmlDeclaration("1.0", "", ""));
  root_.link(document);
}

std::string VorSimTinyXmlWriter::toString() const {
  TiXmlDocument document;
  buildDocument(document);
  TiXmlPrinter printer;
  printer.SetIndent("  ");
  document.Accept(&printer);
  return printer.Str();
}

bool VorSimTinyXmlWriter::saveFile(const std::string& path) {
  MSG_INFO("Saving world to: " << path);
  std::ofstream file(path);
  if (file.is_open()) file << toString();
  if (!file.is_open() || !file.good()) {
    MSG_FATAL("failed to save file: " << path << ". Make sure the directory exists");
    return false;
  }
  return true;
}

}  // namespace vorsim
