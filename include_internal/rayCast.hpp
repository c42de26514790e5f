// Ray casting against single geoms, shared by dRayTest and RayScene, and the
// heightfield index that the registry of heightfield grids keeps.
#ifndef VORSIM_INTERNAL_RAYCAST_HPP
#define VORSIM_INTERNAL_RAYCAST_HPP

#include <ode/ode.h>

#include <memory>
#include <vector>

#include "vorsim/Collision.hpp"

namespace vorsim {

// A heightfield grid with the per-block height ranges that let a ray skip the
// blocks it passes above or below.
struct HeightfieldRayIndex {
  static constexpr size_t kBlock = 8;  // cells per block side
  HeightfieldGrid grid;
  size_t cellsX = 0, cellsZ = 0;
  double cellX = 0.0, cellZ = 0.0;
  double minHeight = 0.0, maxHeight = 0.0;
  size_t blocksX = 0, blocksZ = 0;
  std::vector<double> blockMin, blockMax;  // [blockRow * blocksX + blockColumn]
};

std::shared_ptr<const HeightfieldRayIndex> makeHeightfieldRayIndex(const HeightfieldGrid& grid);
// The index registered with the grid of `data`, or null.
std::shared_ptr<const HeightfieldRayIndex> findHeightfieldRayIndex(dxHeightfieldData* data);

}  // namespace vorsim

#endif  // VORSIM_INTERNAL_RAYCAST_HPP
