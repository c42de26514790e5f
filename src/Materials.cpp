#include "vorsim/Materials.hpp"

#include <algorithm>

#include "vorsim/VorSimTinyXmlWrapper.hpp"

namespace vorsim {

namespace {
inline unsigned int pairKey(unsigned int a, unsigned int b) { return std::max(a, b) * 10000u + std::min(a, b); }
}  // namespace

unsigned int MaterialManager::indexOf(const std::string& name) {
  auto it = materialIndices_.find(name);
  if (it != materialIndices_.end()) return it->second;
  materialIndices_.emplace(name, materialCount_);
  return materialCount_++;
}

const MaterialPairProperties& MaterialManager::getMaterialPairProp(const std::string& name1,
                                                                   const std::string& name2) const {
  auto a = materialIndices_.find(name1);
  if (a == materialIndices_.end()) return defaultProperties_;
  auto b = materialIndices_.find(name2);
  if (b == materialIndices_.end()) return defaultProperties_;
  auto pair = materialPairs_.find(pairKey(a->second, b->second));
  if (pair == materialPairs_.end()) return defaultProperties_;
  return pair->second;
}

void MaterialManager::setDefaultMaterialProperties(double friction, double restitution, double restThreshold,
                                                   double staticFriction, double staticThreshold) {
  defaultProperties_.c_f = friction;
  defaultProperties_.c_r = restitution;
  defaultProperties_.r_th = restThreshold;
  defaultProperties_.c_static_f = staticFriction;
  defaultProperties_.v_static = staticThreshold;
}

void MaterialManager::setMaterialPairProp(const std::string& name1, const std::string& name2, double friction,
                                          double restitution, double restThreshold, double staticFriction,
                                          double staticThreshold) {
  const unsigned int a = indexOf(name1);
  const unsigned int b = indexOf(name2);
  MaterialPairProperties& p = materialPairs_[pairKey(a, b)];
  p.c_f = friction;
  p.c_r = restitution;
  p.r_th = restThreshold;
  p.c_static_f = staticFriction;
  p.v_static = staticThreshold;
  p.v_static_inv = 1.0 / staticThreshold;
}

void MaterialManager::init(const VorSimTinyXmlWrapper& node) {
  // Only the first "default" counts; it sets friction and restitution and leaves
  // the static-friction fields of the default pair as they were.
  auto defaults = node.getChildren("default");
  if (!defaults.empty()) {
    const VorSimTinyXmlWrapper& d = defaults.front();
    const auto friction = d.getAttributeMust<double>("friction");
    const auto restitution = d.getAttributeMust<double>("restitution");
    const auto restThreshold = d.getAttributeMust<double>("restitution_threshold");
    defaultProperties_.c_f = friction;
    defaultProperties_.c_r = restitution;
    defaultProperties_.r_th = restThreshold;
  }

  for (auto const& pair : node.getChildren("pair_prop")) {
    const auto friction = pair.getAttributeMust<double>("friction");
    const auto restitution = pair.getAttributeMust<double>("restitution");
    const auto restThreshold = pair.getAttributeMust<double>("restitution_threshold");
    const auto staticFriction = pair.getAttributeMust<double>("static_friction");
    const auto staticThreshold = pair.getAttributeMust<double>("static_friction_velocity_threshold");
    const auto name1 = pair.getAttributeMust<std::string>("name1");
    const auto name2 = pair.getAttributeMust<std::string>("name2");
    setMaterialPairProp(name1, name2, friction, restitution, restThreshold, staticFriction, staticThreshold);
  }
}

}  // namespace vorsim
