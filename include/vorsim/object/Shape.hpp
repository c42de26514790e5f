// Kinds of collision and visual shape in model descriptions.
#ifndef VORSIM_OBJECT_SHAPE_HPP
#define VORSIM_OBJECT_SHAPE_HPP

#include <cstdint>

namespace vorsim {

struct Shape {
  // Shape parameters (Mat<4,1>): Box (x, y, z, 0) full edges; Cylinder and
  // Capsule (radius, length, 0, 0); Sphere (radius, 0, 0, 0); Mesh (scale x, y,
  // z, 0). NotShape is geometry that no loader understood.
  enum Type : int32_t { Box = 0, Cylinder = 1, Sphere = 2, Mesh = 3, Capsule = 4, NotShape = 13 };
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_SHAPE_HPP
