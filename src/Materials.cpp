#include "vorsim/Materials.hpp"

#include <algorithm>

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

}  // namespace vorsim
