// The build-time description of a robot: a tree of Child nodes, each one rigid
// body together with the joint that carries it, plus the small value types that
// survive into a built ArticulatedSystem (frames, collision definitions,
// visuals). Loaders and callers who build a robot by hand fill a Child tree;
// ArticulatedSystem::init merges the links on fixed joints into their movable
// ancestors, flattens the tree into tables and throws it away.
#ifndef VORSIM_OBJECT_ARTICULATEDSYSTEM_JOINTANDBODIES_HPP
#define VORSIM_OBJECT_ARTICULATEDSYSTEM_JOINTANDBODIES_HPP

#include <ode/ode.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vorsim/math.hpp"
#include "vorsim/object/Shape.hpp"

namespace vorsim {

class Sensor;

// One collision shape of a link, in the link's frame.
struct CollisionBody {
  CollisionBody(Shape::Type shape, const Mat<4, 1>& shapeParam, const Mat<3, 1>& offset, const Mat<3, 3>& rot,
                const Mat<3, 1>& scale, std::string name, std::string material, std::string visMaterial,
                std::string meshFile);

  Shape::Type shape;
  Mat<3, 1> scale;       // mesh scale per axis
  Mat<4, 1> shapeParam;  // see Shape::Type
  Mat<3, 1> offset;      // position in the body frame
  Mat<3, 3> rot;         // orientation in the body frame
  std::string name;      // given to the geom
  std::string material;  // contact material
  std::string visMaterial;
  std::string meshFile;  // relative to the resource directory
  uint64_t collisionGroup = 1;
  uint64_t collisionMask = ~uint64_t(0);
};

// One visual shape of a link, in the link's frame.
struct VisObject {
  // A Mesh without a file name is the fatal message "Provide a valid mesh file
  // name".
  VisObject(Shape::Type shape, const Mat<4, 1>& shapeParam, const Mat<3, 1>& offset, const Mat<3, 3>& rot,
            const Mat<4, 1>& color, const Mat<3, 1>& scale, std::string meshFile, std::string name,
            std::string material);

  Shape::Type shape;
  Mat<4, 1> shapeParam;
  Mat<3, 1> offset;  // position in the body frame
  Mat<3, 3> rot;     // orientation in the body frame
  Mat<4, 1> color;   // RGBA in 0..1
  Mat<3, 1> scale;
  std::string meshFile;
  std::string name;
  size_t localIdx = 0;  // body that carries it; set by ArticulatedSystem::init
  std::string material;
};

// One collision geom of a built system. The name is not kept here: it goes
// into the geom's own record.
struct CollisionDefinition {
  CollisionDefinition(const Mat<3, 3>& rotOffset, const Mat<3, 1>& posOffset, size_t localIdx, dGeomID colObj,
                      const std::string& name);

  Mat<3, 3> rotOffset;  // orientation of the geom in the body frame
  Mat<3, 1> posOffset;  // position of the geom in the body frame
  size_t localIdx;      // body index
  dGeomID colObj;
};

struct Joint {
  // gc and gv widths: FIXED 0/0, REVOLUTE 1/1, PRISMATIC 1/1, SPHERICAL 4/3,
  // FLOATING 7/6. Any other value has width 0.
  enum Type : int32_t { FIXED = 0, REVOLUTE = 1, PRISMATIC = 2, SPHERICAL = 3, FLOATING = 4 };
  static size_t gcWidth(Type type);
  static size_t gvWidth(Type type);
  // A joint whose type nobody set. ArticulatedSystem::init refuses it.
  static constexpr Type kUnsetType = static_cast<Type>(-1);

  Mat<3, 1> axis{0.0, 0.0, 1.0};             // in the joint frame; unit length is the builder's duty
  Mat<3, 1> pos{0.0, 0.0, 0.0};              // origin of the joint frame in the parent body frame
  Mat<3, 3> rot = Mat<3, 3>::getIdentity();  // orientation of the joint frame in the parent body frame
  // Lower and upper limit; for a spherical joint element 0 is the cone angle
  // (0: no limit).
  Mat<2, 1> limit{0.0, 0.0};
  Type type = kUnsetType;  // must be set on every node, the root included
  double effort = 1e150;   // only a value above zero becomes a force limit
  double damping = 0.0;
  double friction = 0.0;
  double stiffness = 0.0;  // a spring exists only when above zero
  double rotorInertia = 0.0;
  // 0 holds a limited joint at rest: set it when building a tree by hand.
  double velocityLimit = 0.0;
  Mat<4, 1> springMount{0.0, 0.0, 0.0, 0.0};  // spring rest: element 0, or a quaternion
  double jointRef = 0.0;                      // coordinate value of the described pose
  std::string name;                           // required on every joint but the root's
};

struct Body {
  std::vector<CollisionBody> collisionBodies;
  std::vector<VisObject> visuals;
  double mass = 0.0;
  Mat<3, 3> inertia{};  // about the centre of mass, body frame
  Mat<3, 1> com{};      // centre of mass in the body frame
  std::vector<std::shared_ptr<Sensor>> sensors;

  // inertia := diag(diagonal), off-diagonal terms zero.
  void setInertia(const Mat<3, 1>& diagonal);
  // inertia from (Ixx, Iyy, Izz, Ixy, Ixz, Iyz), symmetric.
  void setInertiaMjcfOrder(const Mat<6, 1>& v);
  void addVisualObject(Shape::Type shape, const Mat<4, 1>& shapeParam, const Mat<3, 1>& offset, const Mat<3, 3>& rot,
                       const Mat<4, 1>& color, const Mat<3, 1>& scale, const std::string& meshFile,
                       const std::string& name, const std::string& material);
};

// A point on the tree to which callers refer by name: every joint (movable or
// fixed) and every sensor has one.
struct CoordinateFrame {
  Mat<3, 3> orientation = Mat<3, 3>::getIdentity();  // relative to body parentId
  Mat<3, 1> position{0.0, 0.0, 0.0};                 // relative to body parentId
  size_t parentId = 0;                               // movable body that carries the frame
  size_t spareBodyId = 0;                            // nothing writes it
  std::string name;                                  // the joint's name, or the sensor's for a sensor frame
  std::string parentName;                            // name of the movable body that carries the frame
  std::string bodyName;                              // the link the joint leads to; empty for a sensor frame
  bool isMovableJoint = false;                       // at the origin of a movable body
  Joint::Type jointType = Joint::FIXED;
};

struct PinConstraintDefinition {
  std::string body1;  // frame bodyName of the first body
  std::string body2;
  Mat<3, 1> anchor;  // in the first frame
};

struct ArticulatedSystemOption {
  // Every body's geoms ignore those of its nearest ancestor with nonzero mass.
  bool ignoreParentCollision = false;
};

// One rigid body together with the joint that carries it. Copying a Child
// copies its subtree (sensors are shared).
struct Child : public Body, public Joint {
  std::string bodyName;            // the link's name
  std::vector<Child> child;        // children on movable joints
  std::vector<Child> fixedBodies;  // children on fixed joints
  size_t bodyIdx = 0;              // set by ArticulatedSystem::init
  size_t parentIdx = 0;            // set by ArticulatedSystem::init
  std::string parentName;          // the parent link's name
  bool registered = false;         // visited mark of the index walk

  // Bodies, gv entries and gc entries of this node and its movable subtree;
  // fixedBodies do not count.
  size_t numberOfBodiesFromHere() const;
  size_t numberOfDOFFromHere() const;
  size_t numberOfGCFromHere() const;

  // Re-expresses moved's joint, given in oldParent's body frame, in the frame
  // that carries oldParent: pos := R_old pos + p_old, rot := R_old rot. The axis
  // lives in the joint frame and is left alone.
  void changeParent(Child& oldParent, Child& moved);
  // Folds jointRef into the joint's fixed transform, over the movable subtree.
  // A prismatic jointRef is subtracted from all three components of pos.
  void processJointRef();
  // Merges every link on a fixed joint below this body into it (mass, centre
  // of mass, inertia, visuals, collision bodies, sensors) and appends a frame
  // per joint, depth first over the movable subtree.
  void consumeFixedBodies(std::vector<CoordinateFrame>& frames);
  // Creates one geom (in no space) per collision body of this node and its
  // movable subtree, and the visual of each. Mesh files are found in
  // resourceDir; a name starting with "package://" is taken relative to it.
  void initCollisionBodies(std::vector<CollisionDefinition>& definitions, std::vector<VisObject>& visColObj,
                           std::vector<dTriMeshDataID>& meshData, std::vector<std::vector<float>>& meshVertices,
                           std::vector<std::vector<uint32_t>>& meshIndices, const std::string& resourceDir);
  // Stamps each visual with its body index and collects them all.
  void initVisuals(std::vector<VisObject>& visuals);
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_ARTICULATEDSYSTEM_JOINTANDBODIES_HPP
