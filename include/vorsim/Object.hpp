// The contract of everything that is simulated. Every object owns a working
// velocity that the contact solver updates, every contact owns one 3x3 Delassus
// block, and contacts talk to each other only through the velocities of the
// objects they share: the virtual operations below are that conversation.
#ifndef VORSIM_OBJECT_HPP
#define VORSIM_OBJECT_HPP

#include <ode/common.h>

#include <mutex>
#include <string>
#include <vector>

#include "vorsim/math.hpp"

namespace vorsim {

class World;
namespace contact {
class Single3DContactProblem;
}
using ContactProblemList =
    std::vector<contact::Single3DContactProblem, AlignedAllocator<contact::Single3DContactProblem, 32>>;

enum ObjectType {
  SPHERE = 0,
  BOX = 1,
  CYLINDER = 2,
  CONE = 3,
  CAPSULE = 4,
  MESH = 5,
  GROUND = 6,
  COMPOUND = 7,
  HEIGHTMAP = 8,
  ARTICULATED_SYSTEM = 9,
  UNRECOGNIZED = 10
};

enum BodyType { STATIC = 1, KINEMATIC = 2, DYNAMIC = 3 };

// "articulated_system" is accepted as a second spelling of ARTICULATED_SYSTEM;
// any other unknown text gives UNRECOGNIZED.
ObjectType stringToObjectType(const std::string& text);
// The empty string for values outside the enumeration.
std::string objectTypeToString(ObjectType type);

// Note that CONE is neither movable nor a single body: it cannot collide.
bool isMovableBody(ObjectType type);
bool isMovableSingleBody(ObjectType type);
bool isPrimitiveCollisionBody(ObjectType type);
bool isSingleBody(ObjectType type);
bool isSingleCollisionBody(ObjectType type);

// One side of one collision point. Each point gives a record in the list of
// each non-static object that takes part.
struct Contact {
  Mat<3, 3> frame;               // world to contact frame; the third row is the normal
  Mat<3, 1> position;            // world coordinates
  Mat<3, 1> normal;              // unit normal, the same in both records of a point
  Mat<3, 3> delassus;            // this object's J M^-1 J^T block, contact frame
  Mat<3, 1>* impulse = nullptr;  // the problem's impulse, set by contactProblemUpdate
  double impactVel = 0.0;        // normal velocity at the start of the step
  double depth = 0.0;            // negated penetration depth
  size_t localContactIndex = 0;
  size_t pairObjectIndex = 0;
  size_t pairContactIndex = 0;
  size_t contactProblemIndex = 0;
  size_t localBodyIndex = 0;
  bool isSelfCollision = false;
  bool skip = false;
  bool isObjectA = false;
  BodyType pairObjectBodyType = DYNAMIC;
  dxGeom* colObjectA = nullptr;
  dxGeom* colObjectB = nullptr;

  Contact() = default;
  // The record of one side of a collision point, as the world makes it: every
  // field set, the block and the impact velocity zero, the impulse null.
  Contact(const Mat<3, 3>& frame_, const Mat<3, 1>& position_, const Mat<3, 1>& normal_, double depth_,
          size_t localContactIndex_, size_t pairObjectIndex_, size_t pairContactIndex_, size_t contactProblemIndex_,
          size_t localBodyIndex_, bool isObjectA_, BodyType pairObjectBodyType_, dxGeom* colObjectA_,
          dxGeom* colObjectB_)
      : frame(frame_),
        position(position_),
        normal(normal_),
        delassus{},
        impulse(nullptr),
        impactVel(0.0),
        depth(depth_),
        localContactIndex(localContactIndex_),
        pairObjectIndex(pairObjectIndex_),
        pairContactIndex(pairContactIndex_),
        contactProblemIndex(contactProblemIndex_),
        localBodyIndex(localBodyIndex_),
        isSelfCollision(false),
        skip(false),
        isObjectA(isObjectA_),
        pairObjectBodyType(pairObjectBodyType_),
        colObjectA(colObjectA_),
        colObjectB(colObjectB_) {}

  // Rows t/|t|, s/|s|, n/|n| with t = (n.y, -n.x, 0) (or (1,0,0) for a normal
  // along z) and s = n x t.
  static void computeFrame(const Mat<3, 1>& normal, Mat<3, 3>& frame);
  // For `count` points whose normals (as the collision library gives them,
  // three doubles) start at `normals`, `stride` bytes apart: unitNormals[i] =
  // g_i / |g_i| and frames[i] its computeFrame, bit for bit as those scalar
  // steps (the points are worked in packed lanes, each lane one point).
  static void unitNormalsAndFrames(const double* normals, size_t stride, size_t count, Mat<3, 1>* unitNormals,
                                   Mat<3, 3>* frames);

  const Mat<3, 1>& getPosition() const { return position; }
  const Mat<3, 1>& getNormal() const { return normal; }
  const Mat<3, 3>& getContactFrame() const { return frame; }
  const Mat<3, 1>* getImpulse() const { return impulse; }
  size_t getPairObjectIndex() const { return pairObjectIndex; }
  size_t getPairContactIndexInPairObject() const { return pairContactIndex; }
  size_t getLocalBodyIndex() const { return localBodyIndex; }
  BodyType getPairObjectBodyType() const { return pairObjectBodyType; }
  double getDepth() const { return depth; }
};

class Object {
 public:
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  // Writes the current pose of every geom into the collision library.
  virtual void updateCollision() = 0;
  // Builds what depends on pose and contacts only (not on applied forces).
  virtual void preContactSolverUpdate1(const Mat<3, 1>& gravity, double dt) = 0;
  // Consumes applied forces, computes the contact-free working velocity, the
  // impact velocities and what updateGenVelWithImpulse needs.
  virtual void preContactSolverUpdate2(const Mat<3, 1>& gravity, double dt, ContactProblemList& problems) = 0;
  // Advances the pose with the solved velocity and clears per-step inputs.
  virtual void integrate(double dt, World& world) = 0;
  virtual void setExternalForce(size_t localIdx, const Mat<3, 1>& pos, const Mat<3, 1>& force) = 0;
  virtual void setExternalForce(size_t localIdx, const Mat<3, 1>& force) = 0;
  virtual void setExternalTorque(size_t localIdx, const Mat<3, 1>& torque) = 0;
  // A wire's force; `pos` is in the body frame.
  virtual void setConstraintForce(size_t localIdx, const Mat<3, 1>& pos, const Mat<3, 1>& force) = 0;
  virtual double getMass(size_t localIdx) const = 0;
  virtual ObjectType getObjectType() const = 0;
  virtual void getPosition(size_t localIdx, const Mat<3, 1>& posInBody, Mat<3, 1>& posInWorld) const = 0;
  virtual void getPosition(size_t localIdx, Mat<3, 1>& pos) const = 0;
  virtual void getVelocity(size_t localIdx, const Mat<3, 1>& posInBody, Mat<3, 1>& velInWorld) const = 0;
  virtual void getVelocity(size_t localIdx, Mat<3, 1>& vel) const = 0;
  virtual void getOrientation(size_t localIdx, Mat<3, 3>& rot) const = 0;
  virtual BodyType getBodyType() const { return bodyType_; }
  virtual BodyType getBodyType(size_t /*localIdx*/) const { return bodyType_; }
  // Overwrites vel with this object's velocity at the contact, contact frame.
  virtual void getContactPointVel(size_t contactIdx, Mat<3, 1>& vel) const = 0;
  virtual void clearExternalForcesAndTorques() = 0;
  virtual void destroyCollisionBodies(dxSpace* space) = 0;
  // vel += J_c u, from the working velocity.
  virtual void addContactPointVel(size_t contactIdx, Mat<3, 1>& vel) = 0;
  // vel -= J_c u
  virtual void subContactPointVel(size_t contactIdx, Mat<3, 1>& vel) = 0;
  // vel += J_c u0, from the velocity of the start of the step.
  virtual void addContactPointVel2(size_t contactIdx, Mat<3, 1>& vel) = 0;
  // vel -= J_c u0
  virtual void subContactPointVel2(size_t contactIdx, Mat<3, 1>& vel) = 0;
  virtual void updateTimeStep(double dt) = 0;
  virtual void updateTimeStepIfNecessary(double dt) = 0;
  virtual void updateSensorsIfNecessary(World& /*world*/) {}
  // u += M^-1 J_c^T impulse, impulse in the contact frame.
  virtual void updateGenVelWithImpulse(size_t contactIdx, const Mat<3, 1>& impulse) = 0;
  virtual void appendJointLimits(ContactProblemList& /*problems*/) {}
  virtual double enforceJointLimits(contact::Single3DContactProblem& /*problem*/) { return 0.0; }
  virtual void appendConstraints(ContactProblemList& /*problems*/) {}
  // Warm start of a joint-limit problem (rank 5), called by the solver once
  // before its first sweep when the warm start is on and the problem starts
  // with a nonzero impulse: the impulse of the same limit in the last step, in
  // the owner's own coordinates. The owner applies it to its working velocity,
  // or changes it (to zero, say) if it cannot; the problem's impulse must end
  // as what was applied. This default applies nothing and zeroes it.
  virtual void applyJointLimitImpulse(contact::Single3DContactProblem& problem);
  // Writes `index` as the owning object's index into every geom of this object.
  // The world calls it when the object takes a new place in its list, so that
  // contacts and rays find the object through any of its geoms.
  virtual void setGeomObjectIndex(size_t /*index*/) {}
  // How many points a pair of this object's own bodies keeps of one
  // self-collision set; read only for articulated systems.
  virtual int getMaxSelfCollisionContacts() const { return 1; }

  std::vector<Contact>& getContacts() { return contacts_; }
  const std::vector<Contact>& getContacts() const { return contacts_; }
  void clearPerObjectContact() { contacts_.resize(0); }
  void addContactToPerObjectContact(Contact& contact) { contacts_.push_back(contact); }
  double& getImpactVel(size_t contactIdx) { return contacts_[contactIdx].impactVel; }
  size_t getIndexInWorld() const { return indexInWorld_; }
  void setIndexInWorld(size_t index) { indexInWorld_ = index; }
  const std::string& getName() const { return name_; }
  void setName(const std::string& name) { name_ = name; }

  const std::vector<Mat<3, 1>>& getExternalForce() const { return externalForceViz_; }
  const std::vector<Mat<3, 1>>& getExternalForcePosition() const { return externalForceVizPos_; }
  const std::vector<Mat<3, 1>>& getExternalTorque() const { return externalTorqueViz_; }
  const std::vector<Mat<3, 1>>& getExternalTorquePosition() const { return externalTorqueVizPos_; }

  // Never locked by the library; for a client's threads (a viewer, say).
  std::mutex& getMutex() { return objectMutex_; }

 protected:
  std::vector<Contact> contacts_;
  size_t indexInWorld_ = 0;
  BodyType bodyType_ = DYNAMIC;
  std::string name_;
  std::vector<bool> externalForceIsForce_;
  std::vector<Mat<3, 1>> externalLoadValues_;
  std::vector<Mat<3, 1>> externalLoadPositions_;
  std::vector<size_t> externalForceBodies;
  std::vector<Mat<3, 1>> externalForceViz_, externalForceVizPos_;
  std::vector<Mat<3, 1>> externalTorqueViz_, externalTorqueVizPos_;
  std::vector<SparseJacobian> constraintJacobians_;
  std::vector<Mat<3, 1>> constraintForcePositions_, constraintForces_;
  std::vector<size_t> constraintBodyIndices_;
  std::mutex objectMutex_;
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_HPP
