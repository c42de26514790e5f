// One rigid body with several primitive collision shapes (spheres, boxes,
// cylinders, capsules) at fixed poses in its frame. Mass, centre of mass and
// inertia are the caller's, for the whole; nothing is computed from the
// children. Each child's geom carries the child's index as its local index, so
// a contact tells which child touched, while the body responds as one.
#ifndef VORSIM_OBJECT_COMPOUND_HPP
#define VORSIM_OBJECT_COMPOUND_HPP

#include <string>
#include <vector>

#include "vorsim/object/SingleBodyObject.hpp"

namespace vorsim {

class Compound : public SingleBodyObject {
 public:
  struct CompoundObjectChild {
    std::string name;
    ObjectType objectType = SPHERE;
    // SPHERE (radius), BOX (x, y, z full edges), CYLINDER and CAPSULE
    // (radius, length of the cylindrical part).
    Mat<4, 1> objectParam{};
    std::string material = "default";
    std::string appearance;
    // Pose in the body frame, measured from the body's position (not from the
    // centre of mass).
    Mat<3, 3> rotation = Mat<3, 3>::getIdentity();
    Mat<3, 1> position{};
  };
  using ChildList = std::vector<CompoundObjectChild, AlignedAllocator<CompoundObjectChild, 32>>;

  // At least two children, each a sphere, box, cylinder or capsule; anything
  // else is a fatal message. The body starts at the origin, at rest, with its
  // centre of mass at `com` in the body frame. A mass of 0 gives an infinite
  // inverse mass, unreported. Children of one compound never collide with each
  // other.
  Compound(const std::vector<CompoundObjectChild>& children, double mass, const Mat<3, 1>& com,
           const Mat<3, 3>& inertia);
  ~Compound() override;

  void updateCollision() override;
  void destroyCollisionBodies(dxSpace* space) override;
  void setGeomObjectIndex(size_t index) override;

  const ChildList& getChildren() const { return children; }
  // One geom per child, in the children's order. getCollisionObject() is the
  // first of them.
  const std::vector<dxGeom*>& getCollisionObjects() const { return geoms; }

  std::vector<dxGeom*> geoms;
  ChildList children;
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_COMPOUND_HPP
