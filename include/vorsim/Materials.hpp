// Friction and restitution by pair of material names. Names map to small
// integers in order of first use; a pair is stored under the symmetric key
// max*10000 + min, so (a, b) and (b, a) are one pair.
#ifndef VORSIM_MATERIALS_HPP
#define VORSIM_MATERIALS_HPP

#include <string>
#include <unordered_map>

namespace vorsim {

class VorSimTinyXmlWrapper;

struct MaterialPairProperties {
  double c_f = 0.8;           // dynamic friction coefficient
  double c_r = 0.0;           // restitution coefficient
  double r_th = 0.01;         // restitution velocity threshold
  double c_static_f = 0.8;    // static friction coefficient
  double v_static = 1.0;      // velocity below which static friction blends in
  double v_static_inv = 1.0;  // 1 / v_static
};

class MaterialManager {
 public:
  MaterialManager() = default;
  // Reads a material section: the first "default" child and every "pair_prop"
  // child. Every attribute is mandatory.
  explicit MaterialManager(const VorSimTinyXmlWrapper& node) { init(node); }

  // The registered pair, or the default pair for anything unregistered.
  const MaterialPairProperties& getMaterialPairProp(const std::string& name1, const std::string& name2) const;
  // Stores the five values; the default's reciprocal threshold stays as it is.
  void setDefaultMaterialProperties(double friction, double restitution, double restThreshold, double staticFriction,
                                    double staticThreshold);
  void setMaterialPairProp(const std::string& name1, const std::string& name2, double friction, double restitution,
                           double restThreshold, double staticFriction, double staticThreshold);
  const MaterialPairProperties& getDefaultMaterialProperties() const { return defaultProperties_; }

  void init(const VorSimTinyXmlWrapper& node);

 private:
  friend class World;
  unsigned int indexOf(const std::string& name);

  std::unordered_map<unsigned int, MaterialPairProperties> materialPairs_;
  std::unordered_map<std::string, unsigned int> materialIndices_;
  MaterialPairProperties defaultProperties_;
  unsigned int materialCount_ = 0;
};

}  // namespace vorsim

#endif  // VORSIM_MATERIALS_HPP
