// The tree model: widths of joint types, counting over a subtree, and the two
// transforms of a node's joint (re-parenting and the reference coordinate).
#include "vorsim/object/ArticulatedSystem/JointAndBodies.hpp"

#include "vorsim/Collision.hpp"
#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

CollisionBody::CollisionBody(Shape::Type shape_, const Mat<4, 1>& shapeParam_, const Mat<3, 1>& offset_,
                             const Mat<3, 3>& rot_, const Mat<3, 1>& scale_, std::string name_, std::string material_,
                             std::string visMaterial_, std::string meshFile_)
    : shape(shape_),
      scale(scale_),
      shapeParam(shapeParam_),
      offset(offset_),
      rot(rot_),
      name(std::move(name_)),
      material(std::move(material_)),
      visMaterial(std::move(visMaterial_)),
      meshFile(std::move(meshFile_)) {}

VisObject::VisObject(Shape::Type shape_, const Mat<4, 1>& shapeParam_, const Mat<3, 1>& offset_, const Mat<3, 3>& rot_,
                     const Mat<4, 1>& color_, const Mat<3, 1>& scale_, std::string meshFile_, std::string name_,
                     std::string material_)
    : shape(shape_),
      shapeParam(shapeParam_),
      offset(offset_),
      rot(rot_),
      color(color_),
      scale(scale_),
      meshFile(std::move(meshFile_)),
      name(std::move(name_)),
      material(std::move(material_)) {
  if (shape == Shape::Mesh && meshFile.empty()) MSG_FATAL("Provide a valid mesh file name");
}

CollisionDefinition::CollisionDefinition(const Mat<3, 3>& rotOffset_, const Mat<3, 1>& posOffset_, size_t localIdx_,
                                         dGeomID colObj_, const std::string& name)
    : rotOffset(rotOffset_), posOffset(posOffset_), localIdx(localIdx_), colObj(colObj_) {
  geomData(colObj).name = name;
}

size_t Joint::gcWidth(Type type) {
  switch (type) {
    case REVOLUTE:
    case PRISMATIC:
      return 1;
    case SPHERICAL:
      return 4;
    case FLOATING:
      return 7;
    default:
      return 0;
  }
}

size_t Joint::gvWidth(Type type) {
  switch (type) {
    case REVOLUTE:
    case PRISMATIC:
      return 1;
    case SPHERICAL:
      return 3;
    case FLOATING:
      return 6;
    default:
      return 0;
  }
}

void Body::setInertia(const Mat<3, 1>& diagonal) {
  inertia.setZero();
  for (size_t i = 0; i < 3; ++i) inertia(i, i) = diagonal[i];
}

void Body::setInertiaMjcfOrder(const Mat<6, 1>& v) {
  inertia(0, 0) = v[0];
  inertia(1, 1) = v[1];
  inertia(2, 2) = v[2];
  inertia(0, 1) = inertia(1, 0) = v[3];
  inertia(0, 2) = inertia(2, 0) = v[4];
  inertia(1, 2) = inertia(2, 1) = v[5];
}

void Body::addVisualObject(Shape::Type shape, const Mat<4, 1>& shapeParam, const Mat<3, 1>& offset,
                           const Mat<3, 3>& rot, const Mat<4, 1>& color, const Mat<3, 1>& scale,
                           const std::string& meshFile, const std::string& name, const std::string& material) {
  visuals.emplace_back(shape, shapeParam, offset, rot, color, scale, meshFile, name, material);
}

size_t Child::numberOfBodiesFromHere() const {
  size_t n = 1;
  for (const Child& c : child) n += c.numberOfBodiesFromHere();
  return n;
}

size_t Child::numberOfDOFFromHere() const {
  size_t n = gvWidth(type);
  for (const Child& c : child) n += c.numberOfDOFFromHere();
  return n;
}

size_t Child::numberOfGCFromHere() const {
  size_t n = gcWidth(type);
  for (const Child& c : child) n += c.numberOfGCFromHere();
  return n;
}

void Child::changeParent(Child& oldParent, Child& moved) {
  Mat<3, 1> p;
  matvecmul(oldParent.rot, moved.pos, p);
  for (size_t k = 0; k < 3; ++k) moved.pos[k] = p[k] + oldParent.pos[k];
  const Mat<3, 3> r = moved.rot;
  rotmatmul(oldParent.rot, r, moved.rot);
}

void Child::processJointRef() {
  if (type == REVOLUTE) {
    Mat<3, 3> M;
    angleAxisToRotMat(axis, -jointRef, M);
    matmul(rot, M, rot);  // a plain product: with jointRef 0 the matrix stays bit for bit
  } else if (type == PRISMATIC) {
    for (size_t k = 0; k < 3; ++k) pos[k] -= jointRef;
  }
  for (Child& c : child) c.processJointRef();
}

}  // namespace vorsim
