// What the MJCF reader gathers from a whole file before it builds bodies: the
// compiler settings, the default classes and the assets. World::loadMjcf fills
// them; the ArticulatedSystem constructor for one MJCF body reads them.
#ifndef VORSIM_MJCFTYPES_HPP
#define VORSIM_MJCFTYPES_HPP

#include <string>
#include <unordered_map>
#include <utility>

#include "vorsim/VorSimTinyXmlWrapper.hpp"
#include "vorsim/math.hpp"

namespace vorsim {
namespace mjcf {

struct MjcfCompilerSetting {
  std::string angle = "degree";  // "degree" or "radian"
  std::string eulerseq = "xyz";  // three axis letters, lower case
};

// Class name to its <default> element; "default" is the top-level class. Each
// nested class's element carries an attribute "parent" naming its enclosing
// class.
using DefaultMap = std::unordered_map<std::string, VorSimTinyXmlWrapper>;

struct MjcfAssets {
  // Mesh asset name to its file (as written) and scale.
  std::unordered_map<std::string, std::pair<std::string, Mat<3, 1>>> meshes;
  // Material name to its rgba text.
  std::unordered_map<std::string, std::string> materials;
};

}  // namespace mjcf
}  // namespace vorsim

#endif  // VORSIM_MJCFTYPES_HPP
