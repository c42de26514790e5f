#include "vorsim/Object.hpp"

#include "vorsim/contact/Single3DContactProblem.hpp"

namespace vorsim {

void Object::applyJointLimitImpulse(contact::Single3DContactProblem& problem) { problem.impulse.setZero(); }

ObjectType stringToObjectType(const std::string& text) {
  static const char* const names[] = {"sphere", "box",    "cylinder", "cone",      "capsule",
                                      "mesh",   "ground", "compound", "heightmap", "articulatedSystem"};
  for (int i = 0; i < 10; ++i)
    if (text == names[i]) return static_cast<ObjectType>(i);
  if (text == "articulated_system") return ARTICULATED_SYSTEM;
  return UNRECOGNIZED;
}

std::string objectTypeToString(ObjectType type) {
  switch (type) {
    case SPHERE:
      return "sphere";
    case BOX:
      return "box";
    case CYLINDER:
      return "cylinder";
    case CONE:
      return "cone";
    case CAPSULE:
      return "capsule";
    case MESH:
      return "mesh";
    case GROUND:
      return "ground";
    case COMPOUND:
      return "compound";
    case HEIGHTMAP:
      return "heightmap";
    case ARTICULATED_SYSTEM:
      return "articulatedSystem";
    case UNRECOGNIZED:
      return "unrecognized";
  }
  return "";
}

bool isMovableBody(ObjectType t) {
  return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE || t == MESH || t == COMPOUND ||
         t == ARTICULATED_SYSTEM;
}
bool isMovableSingleBody(ObjectType t) {
  return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE || t == MESH || t == COMPOUND;
}
bool isPrimitiveCollisionBody(ObjectType t) { return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE; }
bool isSingleBody(ObjectType t) {
  return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE || t == MESH || t == GROUND || t == COMPOUND ||
         t == HEIGHTMAP;
}
bool isSingleCollisionBody(ObjectType t) {
  return t == SPHERE || t == BOX || t == CYLINDER || t == CAPSULE || t == MESH;
}

void Contact::computeFrame(const Mat<3, 1>& n, Mat<3, 3>& frame) {
  Mat<3, 1> t{n[1], -n[0], 0.0};
  if (n[0] == 0.0 && n[1] == 0.0) t = {1.0, 0.0, 0.0};
  Mat<3, 1> s = cross(n, t);
  const double tn = t.norm(), sn = s.norm(), nn = n.norm();
  for (size_t j = 0; j < 3; ++j) {
    frame(0, j) = t[j] / tn;
    frame(1, j) = s[j] / sn;
    frame(2, j) = n[j] / nn;
  }
}

}  // namespace vorsim
