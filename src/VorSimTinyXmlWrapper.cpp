#include "vorsim/VorSimTinyXmlWrapper.hpp"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "vorsim/Path.hpp"
#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

namespace {

const char* const kDummyNodeMessage = "You have accessed a dummy node";
const char* const kTextSourceName = "URDF from a string";

// Splits the text of a vector attribute into its items. The separator is a
// comma if there is one, otherwise a space; text with neither is one item.
// With a space separator, runs of spaces count as one and a single leading and
// trailing space are dropped, so "1  2   3" and " 1 2 3 " give three items.
std::vector<std::string> splitItems(std::string const& text) {
  char separator = 0;
  if (text.find(',') != std::string::npos) {
    separator = ',';
  } else if (text.find(' ') != std::string::npos) {
    separator = ' ';
  }
  if (separator == 0) return {text};

  std::string cleaned;
  if (separator == ' ') {
    cleaned.reserve(text.size());
    for (char c : text) {
      if (c == ' ' && !cleaned.empty() && cleaned.back() == ' ') continue;
      cleaned.push_back(c);
    }
    if (!cleaned.empty() && cleaned.front() == ' ') cleaned.erase(0, 1);
    if (!cleaned.empty() && cleaned.back() == ' ') cleaned.pop_back();
  } else {
    cleaned = text;
  }

  std::vector<std::string> items;
  size_t start = 0;
  while (true) {
    const size_t end = cleaned.find(separator, start);
    if (end == std::string::npos) {
      items.push_back(cleaned.substr(start));
      break;
    }
    items.push_back(cleaned.substr(start, end - start));
    start = end + 1;
  }
  return items;
}

}  // namespace

// ---------------------------------------------------------------------------
// construction and copying
// ---------------------------------------------------------------------------

VorSimTinyXmlWrapper::VorSimTinyXmlWrapper(std::string const& fileOrXml, std::string const& rootName) {
  if (!fileOrXml.empty() && fileOrXml.find('<') != std::string::npos) {
    fileName_ = kTextSourceName;
    document_.Parse(fileOrXml.c_str());
    // A parse error leaves a partial tree behind; reading from it would hide the
    // fault, so malformed text is refused as a whole.
    if (document_.Error()) {
      MSG_FATAL("cannot parse the xml text: " << document_.ErrorDesc() << " at row:" << document_.ErrorRow()
                                              << " col:" << document_.ErrorCol());
      return;
    }
  } else {
    fileName_ = Path(fileOrXml).getString();
    if (!document_.LoadFile(fileName_)) {
      MSG_FATAL("cannot read the xml file: " << fileOrXml);
      return;
    }
  }

  path_.push_back(rootName);
  element_ = document_.FirstChildElement(rootName);
  if (element_ == nullptr) MSG_FATAL(fileOrXml << " file does not contain node '" << rootName << "'");
}

VorSimTinyXmlWrapper::VorSimTinyXmlWrapper(std::string const& xmlText, std::string const& rootName,
                                           std::string const& sourceName) {
  fileName_ = sourceName;
  document_.Parse(xmlText.c_str());
  if (document_.Error()) {
    MSG_FATAL("cannot parse the xml text of " << sourceName << ": " << document_.ErrorDesc()
                                              << " at row:" << document_.ErrorRow() << " col:" << document_.ErrorCol());
    return;
  }
  path_.push_back(rootName);
  element_ = document_.FirstChildElement(rootName);
  if (element_ == nullptr) MSG_FATAL(sourceName << " file does not contain node '" << rootName << "'");
}

VorSimTinyXmlWrapper::VorSimTinyXmlWrapper(TiXmlElement* element, std::string fileName, std::vector<std::string> path)
    : element_(element), fileName_(std::move(fileName)), path_(std::move(path)) {}

VorSimTinyXmlWrapper::VorSimTinyXmlWrapper(VorSimTinyXmlWrapper const& other)
    : document_(other.document_), element_(other.element_), fileName_(other.fileName_), path_(other.path_) {
  if (other.element_ != nullptr && other.document_.FirstChild() != nullptr) element_ = relocate(other);
}

VorSimTinyXmlWrapper& VorSimTinyXmlWrapper::operator=(VorSimTinyXmlWrapper const& other) {
  if (this == &other) return *this;
  document_ = other.document_;
  element_ = other.element_;
  if (other.element_ != nullptr && other.document_.FirstChild() != nullptr) element_ = relocate(other);
  fileName_ = other.fileName_;
  path_ = other.path_;
  return *this;
}

// Only the wrapper that parsed a document has nodes in its own document_, and
// its element lives there. The element is found again in the copy by its
// position among its siblings at each level, which names it uniquely even when
// several siblings share a name.
TiXmlElement* VorSimTinyXmlWrapper::relocate(VorSimTinyXmlWrapper const& other) {
  std::vector<int> route;
  const TiXmlNode* node = other.element_;
  while (node != nullptr && node != &other.document_) {
    int index = 0;
    for (const TiXmlNode* s = node->PreviousSibling(); s != nullptr; s = s->PreviousSibling()) ++index;
    route.push_back(index);
    node = node->Parent();
  }
  // Not inside the other's document after all: keep pointing where it points.
  if (node == nullptr) return other.element_;

  TiXmlNode* copy = &document_;
  for (auto it = route.rbegin(); it != route.rend() && copy != nullptr; ++it) {
    copy = copy->FirstChild();
    for (int k = 0; k < *it && copy != nullptr; ++k) copy = copy->NextSibling();
  }
  return copy != nullptr ? copy->ToElement() : nullptr;
}

// ---------------------------------------------------------------------------
// messages
// ---------------------------------------------------------------------------

bool VorSimTinyXmlWrapper::failIfDummy() const {
  if (element_ != nullptr) return false;
  MSG_FATAL(kDummyNodeMessage);
  return true;
}

std::string VorSimTinyXmlWrapper::locationHead() const {
  // TinyXML keeps zero-based positions and reports them plus one.
  return "in '" + fileName_ + "' at row:" + std::to_string(element_->Row()) +
         " col:" + std::to_string(element_->Column()) + ", the node '" + element_->ValueStr() + "'";
}

void VorSimTinyXmlWrapper::missingAttribute(std::string const& name) const {
  MSG_FATAL(locationHead() << " does not contain an attribute called '" << name << "'");
}

void VorSimTinyXmlWrapper::errorMessage(std::string const& msg) const {
  if (failIfDummy()) return;
  MSG_FATAL(locationHead() << ": " << msg);
}

std::string VorSimTinyXmlWrapper::getName() const { return element_ != nullptr ? element_->ValueStr() : std::string(); }
int VorSimTinyXmlWrapper::getRow() const { return element_ != nullptr ? element_->Row() : 0; }
int VorSimTinyXmlWrapper::getColumn() const { return element_ != nullptr ? element_->Column() : 0; }

// ---------------------------------------------------------------------------
// navigation
// ---------------------------------------------------------------------------

std::vector<VorSimTinyXmlWrapper> VorSimTinyXmlWrapper::collectChildren(const char* name) const {
  std::vector<VorSimTinyXmlWrapper> children;
  if (failIfDummy()) return children;
  TiXmlElement* child = name != nullptr ? element_->FirstChildElement(name) : element_->FirstChildElement();
  while (child != nullptr) {
    std::vector<std::string> childPath = path_;
    childPath.push_back(child->ValueStr());
    children.push_back(VorSimTinyXmlWrapper(child, fileName_, std::move(childPath)));
    child = name != nullptr ? child->NextSiblingElement(name) : child->NextSiblingElement();
  }
  return children;
}

std::vector<VorSimTinyXmlWrapper> VorSimTinyXmlWrapper::getChildren(std::string const& name) const {
  return collectChildren(name.c_str());
}

std::vector<VorSimTinyXmlWrapper> VorSimTinyXmlWrapper::getChildren() const { return collectChildren(nullptr); }

std::vector<VorSimTinyXmlWrapper> VorSimTinyXmlWrapper::getChildrenMust(std::string const& name) const {
  auto children = collectChildren(name.c_str());
  if (children.empty() && element_ != nullptr) MSG_FATAL(locationHead() << " does not contain a child");
  return children;
}

std::vector<VorSimTinyXmlWrapper> VorSimTinyXmlWrapper::getChildrenMust() const {
  auto children = collectChildren(nullptr);
  if (children.empty() && element_ != nullptr) MSG_FATAL(locationHead() << " does not contain a child");
  return children;
}

bool VorSimTinyXmlWrapper::removeFirstChild(std::string const& name) {
  if (failIfDummy()) return false;
  TiXmlElement* child = element_->FirstChildElement(name);
  if (child == nullptr) return false;
  return element_->RemoveChild(child);
}

std::string VorSimTinyXmlWrapper::getFullTree() const {
  std::string tree;
  for (auto const& name : path_) tree += name + "/";
  return tree;
}

void VorSimTinyXmlWrapper::setAttributeText(std::string const& name, std::string const& value) {
  if (failIfDummy()) return;
  element_->SetAttribute(name, value);
}

// ---------------------------------------------------------------------------
// attributes
// ---------------------------------------------------------------------------

const std::string* VorSimTinyXmlWrapper::rawAttribute(std::string const& name) const {
  return element_ != nullptr ? element_->Attribute(name) : nullptr;
}

// Unsigned integers in decimal. A leading minus wraps as in C, so "-1" means all
// bits set, the usual spelling of "none" or "every group". Text without any
// digits is a located fatal message.
bool VorSimTinyXmlWrapper::parseSize(std::string const& name, std::string const& text, size_t& value) const {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const unsigned long long parsed = std::strtoull(begin, &end, 10);
  if (end == begin || errno == ERANGE) {
    errorMessage("the attribute '" + name + "' is not an unsigned integer: '" + text + "'");
    return false;
  }
  value = static_cast<size_t>(parsed);
  return true;
}

bool VorSimTinyXmlWrapper::readVector(std::string const& name, size_t expected, std::vector<double>& items,
                                      bool must) const {
  if (must && failIfDummy()) return false;
  const std::string* text = rawAttribute(name);
  if (text == nullptr) {
    if (must) missingAttribute(name);
    return false;
  }
  const std::vector<std::string> parts = splitItems(*text);
  if (expected != 0 && parts.size() != expected) {
    MSG_FATAL("Dimension mismatch. File: " << fileName_ << ", node: " << getFullTree() << ", at row:" << element_->Row()
                                           << " col:" << element_->Column() << ", Attribute: " << name
                                           << " should have a dimension of " << expected);
    return false;
  }
  // std::stod throws on an item that is no number; the exception is the caller's.
  std::vector<double> parsed;
  parsed.reserve(parts.size());
  for (auto const& part : parts) parsed.push_back(std::stod(part));
  items = std::move(parsed);
  return true;
}

void VorSimTinyXmlWrapper::readMust(std::string const& name, int& value) const {
  if (failIfDummy()) return;
  int parsed = 0;
  if (element_->Attribute(name, &parsed) == nullptr) return missingAttribute(name);
  value = parsed;
}

void VorSimTinyXmlWrapper::readMust(std::string const& name, double& value) const {
  if (failIfDummy()) return;
  double parsed = 0.0;
  if (element_->Attribute(name, &parsed) == nullptr) return missingAttribute(name);
  value = parsed;
}

void VorSimTinyXmlWrapper::readMust(std::string const& name, size_t& value) const {
  if (failIfDummy()) return;
  const std::string* text = rawAttribute(name);
  if (text == nullptr) return missingAttribute(name);
  parseSize(name, *text, value);
}

void VorSimTinyXmlWrapper::readMust(std::string const& name, std::string& value) const {
  if (failIfDummy()) return;
  const std::string* text = rawAttribute(name);
  if (text == nullptr) return missingAttribute(name);
  value = *text;
}

void VorSimTinyXmlWrapper::readMust(std::string const& name, VecDyn& value) const {
  std::vector<double> items;
  if (!readVector(name, 0, items, true)) return;
  value.resize(items.size());
  for (size_t i = 0; i < items.size(); ++i) value[i] = items[i];
}

bool VorSimTinyXmlWrapper::getAttributeIfExists(std::string const& name, int& value) const {
  if (element_ == nullptr) return false;
  int parsed = 0;
  if (element_->Attribute(name, &parsed) == nullptr) return false;
  value = parsed;
  return true;
}

bool VorSimTinyXmlWrapper::getAttributeIfExists(std::string const& name, double& value) const {
  if (element_ == nullptr) return false;
  double parsed = 0.0;
  if (element_->Attribute(name, &parsed) == nullptr) return false;
  value = parsed;
  return true;
}

bool VorSimTinyXmlWrapper::getAttributeIfExists(std::string const& name, std::string& value) const {
  const std::string* text = rawAttribute(name);
  if (text == nullptr) return false;
  value = *text;
  return true;
}

bool VorSimTinyXmlWrapper::getAttributeIfExists(std::string const& name, size_t& value) const {
  const std::string* text = rawAttribute(name);
  if (text == nullptr) return false;
  return parseSize(name, *text, value);
}

bool VorSimTinyXmlWrapper::getAttributeIfExists(std::string const& name, std::vector<double>& value) const {
  std::vector<double> items;
  if (!readVector(name, 0, items, false)) return false;
  value = std::move(items);
  return true;
}

bool VorSimTinyXmlWrapper::getAttributeIfExists(std::string const& name, VecDyn& value) const {
  std::vector<double> items;
  if (!readVector(name, 0, items, false)) return false;
  value.resize(items.size());
  for (size_t i = 0; i < items.size(); ++i) value[i] = items[i];
  return true;
}

}  // namespace vorsim
