// One robot in a World: a tree of rigid bodies on revolute, prismatic,
// spherical and floating joints, simulated in generalized coordinates.
//
// A description (URDF file or text, or a Child tree built in code) is turned by
// init into flat tables indexed by body, by gc index or by gv index; every
// later stage (kinematics, mass matrix, articulated-body algorithm, contacts,
// limits and pins) works on those tables only. Links on fixed joints are
// merged into their movable ancestor and survive as frames.
//
// The implementation is one source file per stage, under
// src/object/ArticulatedSystem/: Building.cpp (construction, tables, geoms,
// names), Kinematics.cpp (poses, velocities, frames, Jacobians, state access),
// MassMatrix.cpp (mass matrix, its sparse factor and inverse, inverse
// dynamics, energies), ForwardDynamics.cpp (generalized forces, the
// articulated-body algorithm, integration, loads), LimitsAndPins.cpp and
// ContactDynamics.cpp.
//
// Layout of the state. gc and gv follow the body order. A floating base takes
// gc[0..6] (position, quaternion w x y z) and gv[0..5] (linear and angular
// velocity, world frame); then each body adds its joint: one entry for a
// revolute or prismatic joint, and for a spherical joint a quaternion in gc and
// an angular velocity in the body frame in gv. The index -1 (all bits) means
// "none".
//
// The tables below are public for reading; they are written by init and by the
// step only.
#ifndef VORSIM_OBJECT_ARTICULATEDSYSTEM_ARTICULATEDSYSTEM_HPP
#define VORSIM_OBJECT_ARTICULATEDSYSTEM_ARTICULATEDSYSTEM_HPP

#include <ode/ode.h>

#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "vorsim/MjcfTypes.hpp"
#include "vorsim/Object.hpp"
#include "vorsim/math.hpp"
#include "vorsim/object/ArticulatedSystem/JointAndBodies.hpp"
#include "vorsim/sensors/Sensor.hpp"

namespace vorsim {

class InertialMeasurementUnit;
class World;
namespace urdf {
class LoadFromURDF2;
}
namespace mjcf {
class LoadFromMjcf;
}

// A point constraint that closes a loop between two bodies of one robot.
class PinConstraint {
 public:
  PinConstraint(size_t body1, const Mat<3, 1>& pos1, size_t body2, const Mat<3, 1>& pos2)
      : pinPos1(pos1), pinPos2(pos2), pinBody1(body1), pinBody2(body2) {}
  virtual ~PinConstraint() = default;

  Mat<3, 1> pinPos1, pinPos2;                      // the pin point in each body's frame
  Mat<3, 1> pinPosW1{0, 0, 0}, pinPosW2{0, 0, 0};  // world points of the current step
  size_t pinBody1, pinBody2;
};

class ArticulatedSystem : public Object {
 public:
  // In which frame a point or a result is expressed.
  enum Frame : int32_t { WORLD_FRAME = 0, PARENT_FRAME = 1, BODY_FRAME = 2 };

  struct SpringElement {
    size_t springBody;  // body index
    double springStiffness;
    Mat<4, 1> springRest;  // element 0, or a quaternion for a spherical joint
  };

  using SensorMap =
      std::unordered_map<std::string, std::shared_ptr<Sensor>, std::hash<std::string>, std::equal_to<std::string>,
                         AlignedAllocator<std::pair<const std::string, std::shared_ptr<Sensor>>, 32>>;

  static constexpr size_t kNone = size_t(-1);

  // controlMode: forces only, or forces plus the PD law.
  enum ControlMode : int32_t { FORCE_CONTROL = 0, PD_PLUS_FEEDFORWARD_TORQUE = 1 };
  // integrationScheme. The trapezoid moves gc with the mean of the old and the
  // new velocity; the Runge-Kutta scheme reruns the articulated-body algorithm
  // at three more states inside the step.
  enum IntegrationScheme : int32_t { TRAPEZOID = 0, SEMI_IMPLICIT_EULER = 1, EXPLICIT_EULER = 2, RUNGE_KUTTA_4 = 3 };

  // Per-body record of the articulated-body algorithm. Spatial vectors have six
  // entries, linear part first, in world coordinates, referred to the body's
  // origin posW[b]. Forces go up to the parent and motions come down from it
  // through the shift by relPosW[b] (in abaBackwardBody, addInertiaToParent
  // and abaForwardBody), so the shift is not stored.
  struct alignas(32) AbaData {
    // M_A about posW[b], in its lower triangle (whole for a spherical joint).
    Eigen::Matrix<double, 6, 6> articulatedInertia;
    Eigen::Matrix<double, 6, 1> biasForce;           // p_A
    Eigen::Matrix<double, 6, 1> a;                   // spatial acceleration (falling frame)
    Eigen::Matrix<double, 6, 1> c;                   // velocity-product acceleration
    // One-dof joint: motion column, its time derivative, U = M_A S, U / D.
    Eigen::Matrix<double, 6, 1> S, Sdot, U, UDinv;
    double Dinv;         // inverse joint-space inertia
    double scaledForce;  // Dinv (tau - S^T p_A - U^T c)
  };
  // The joint terms of a three-dof (spherical) joint, one record per body.
  struct alignas(32) AbaData3 {
    Eigen::Matrix<double, 6, 3> S, Sdot, U, UDinv;
    Eigen::Matrix3d D, Dinv;
    Eigen::Vector3d scaledForce;
  };
  using AbaDataList = std::vector<AbaData, AlignedAllocator<AbaData, 32>>;
  using AbaData3List = std::vector<AbaData3, AlignedAllocator<AbaData3, 32>>;

  // A ".urdf" or ".xml" file, or URDF text (anything holding '<'). With a file
  // and an empty resPath, mesh files are found next to the file. jointOrder
  // puts the named joints first among their siblings.
  explicit ArticulatedSystem(const std::string& filePathOrXml, const std::string& resPath = "",
                             const std::vector<std::string>& jointOrder = {},
                             ArticulatedSystemOption option = ArticulatedSystemOption());
  // A tree built in code; its root's type must be FIXED or FLOATING.
  ArticulatedSystem(const Child& root, const std::string& resPath,
                    ArticulatedSystemOption option = ArticulatedSystemOption());
  // One <body> of an MJCF worldbody with its sub-bodies (see World::loadMjcf).
  // A free body starts at the pose the file gives it.
  ArticulatedSystem(const VorSimTinyXmlWrapper& body, const std::string& resPath, const mjcf::DefaultMap& defaults,
                    const mjcf::MjcfAssets& assets, const mjcf::MjcfCompilerSetting& compiler,
                    ArticulatedSystemOption option = ArticulatedSystemOption());
  ~ArticulatedSystem() override;

  // Writes the built system as URDF, directory/fileName (the name must end in
  // ".urdf"): one link per body with its merged mass, visuals and collision
  // shapes, one joint per body, and a massless link on a fixed joint per frame
  // of a merged link, so that reading the file back gives the same tables and
  // frames. A system read from URDF is not written again (a warning says so).
  // Sensors and per-geom collision groups are not written. Returns whether the
  // file was written.
  bool exportRobotDescriptionToURDF(const std::string& directory, const std::string& fileName) const;
  // True for a system read from a URDF file or URDF text.
  bool isFromUrdf() const { return !robotFilePath.empty() || !urdfString.empty(); }
  const std::string& getRobotFilePath() const { return robotFilePath; }
  const std::string& getUrdfString() const { return urdfString; }

  // ---------------------------------------------------------------- Object --
  // Moves every geom to its body's pose (with the collision library's setters,
  // so that bounding boxes follow).
  void updateCollision() override;
  // Reads GeomData::canPair of every geom (set by the world's broad phase) and
  // splits the geoms into those placed in every step and those placed on
  // demand; returns how many are placed on demand. Geoms waiting for their
  // pose get it first.
  size_t splitGeomPlacement();
  // The world's placement in a step once some geoms are placed on demand: the
  // others are moved, and the bodies' poses are kept for the on-demand ones.
  void updateCollisionInStep();
  // Moves the on-demand geoms to the poses kept by the last
  // updateCollisionInStep, if they are not there yet.
  void placeDeferredGeoms() const;
  void preContactSolverUpdate1(const Mat<3, 1>& gravity, double dt) override;
  void preContactSolverUpdate2(const Mat<3, 1>& gravity, double dt, ContactProblemList& problems) override;
  void integrate(double dt, World& world) override;
  void setExternalForce(size_t localIdx, const Mat<3, 1>& pos, const Mat<3, 1>& force) override;
  void setExternalForce(size_t localIdx, const Mat<3, 1>& force) override;
  void setExternalTorque(size_t localIdx, const Mat<3, 1>& torque) override;
  void setConstraintForce(size_t localIdx, const Mat<3, 1>& pos, const Mat<3, 1>& force) override;
  double getMass(size_t localIdx) const override { return massOf[localIdx]; }
  ObjectType getObjectType() const override { return ARTICULATED_SYSTEM; }
  // posW[body], and rotW[body] p + posW[body] for p in the body frame.
  void getPosition(size_t body, const Mat<3, 1>& posInBody, Mat<3, 1>& posInWorld) const override;
  void getPosition(size_t body, Mat<3, 1>& pos) const override;
  // linVelW[body], and linVelW + angVelW x (rotW p) for p in the body frame.
  void getVelocity(size_t body, const Mat<3, 1>& posInBody, Mat<3, 1>& velInWorld) const override;
  void getVelocity(size_t body, Mat<3, 1>& vel) const override;
  void getOrientation(size_t body, Mat<3, 3>& rot) const override;
  BodyType getBodyType() const override { return DYNAMIC; }
  // Body 0 of a fixed base is STATIC, every other body DYNAMIC.
  BodyType getBodyType(size_t localIdx) const override;
  void getContactPointVel(size_t contactIdx, Mat<3, 1>& vel) const override;
  void clearExternalForcesAndTorques() override;
  // Removes every geom from the space, destroys it and its triangle data.
  void destroyCollisionBodies(dxSpace* space) override;
  void addContactPointVel(size_t contactIdx, Mat<3, 1>& vel) override;
  void subContactPointVel(size_t contactIdx, Mat<3, 1>& vel) override;
  void addContactPointVel2(size_t contactIdx, Mat<3, 1>& vel) override;
  void subContactPointVel2(size_t contactIdx, Mat<3, 1>& vel) override;
  void updateTimeStep(double dt) override;
  void updateTimeStepIfNecessary(double dt) override;
  void updateGenVelWithImpulse(size_t contactIdx, const Mat<3, 1>& impulse) override;
  // Writes the object index into every geom of this system.
  void setGeomObjectIndex(size_t index) override;
  int getMaxSelfCollisionContacts() const override { return maxSelfCollisionContacts; }
  // Position and velocity limits of one-dof joints and cone limits of
  // spherical joints, one rank-5 problem per active joint, made after the
  // articulated-body algorithm of the step.
  void appendJointLimits(ContactProblemList& problems) override;
  // Stops the joint's motion into its limit (or caps its speed) along the
  // joint's impulse response; returns the velocity change asked for.
  double enforceJointLimits(contact::Single3DContactProblem& problem) override;
  // Applies the warm-start impulse of a joint limit, trimmed to what pushes
  // the joint out of its limit.
  void applyJointLimitImpulse(contact::Single3DContactProblem& problem) override;
  // One bilateral problem per pin, before the contact Jacobians are built.
  void appendConstraints(ContactProblemList& problems) override;

  // ------------------------------------------------------- building, geoms --
  // Every geom of body A ignores every geom of body B and the other way round.
  void ignoreCollisionBetween(size_t bodyA, size_t bodyB);
  void setCollisionObjectPositionOffset(size_t i, const Mat<3, 1>& pos);
  void setCollisionObjectOrientationOffset(size_t i, const Mat<3, 3>& rot);
  // Resizes geom i (box p0..p2, sphere p0, capsule and cylinder p0, p1; a mesh
  // is left alone) and stores p in visColObj[i].shapeParam.
  void setCollisionObjectShapeParameters(size_t i, const Mat<4, 1>& p);
  // One line per entry on standard output: "<i>th body: <name>" (joints use
  // the body label too) or "<i>th frame: <name>".
  void printOutBodyNamesInOrder() const;
  void printOutMovableJointNamesInOrder() const;
  void printOutFrameNamesInOrder() const;

  // --------------------------------------------------------------- names --
  // The first frame of that name, or -1.
  size_t getFrameIdxByName(const std::string& name) const;
  // An unknown name is a fatal message.
  CoordinateFrame& getFrameByName(const std::string& name);
  // The body of that name; a link merged into another body is the fatal
  // message that points to frames; otherwise -1.
  size_t getBodyIdx(const std::string& name) const;

  // ---------------------------------------------------------- kinematics --
  // Refreshes the kinematic tables from gc and gv (normalising quaternions in
  // gc). Allocates nothing.
  void updateKinematics();
  // The velocity of point p given in pointFrame, expressed in outFrame. The
  // parent frame of body 0 is the world frame.
  void getVelocity(size_t body, Frame pointFrame, const Mat<3, 1>& p, Frame outFrame, Mat<3, 1>& out) const;
  // Sum over the columns of gv[idx[k]] times column k.
  void getVelocity(const SparseJacobian& jacobian, Mat<3, 1>& out) const;
  void getPositionInBodyCoordinate(size_t body, const Mat<3, 1>& pW, Mat<3, 1>& out) const;
  void getPositionInFrame(size_t frameIdx, const Mat<3, 1>& p, Mat<3, 1>& out) const;
  void getPose(const VisObject& v, Mat<3, 3>& rot, Mat<3, 1>& pos) const;
  void getFramePosition(const CoordinateFrame& f, Mat<3, 1>& out) const;
  void getFrameOrientation(const CoordinateFrame& f, Mat<3, 3>& out) const;
  void getFrameVelocity(const CoordinateFrame& f, Mat<3, 1>& out) const;
  void getFrameAngularVelocity(const CoordinateFrame& f, Mat<3, 1>& out) const;
  void getFrameAcceleration(const CoordinateFrame& f, Mat<3, 1>& out) const;
  void getFramePosition(size_t frameIdx, Mat<3, 1>& out) const { getFramePosition(frames[frameIdx], out); }
  void getFrameOrientation(size_t frameIdx, Mat<3, 3>& out) const { getFrameOrientation(frames[frameIdx], out); }
  void getFrameVelocity(size_t frameIdx, Mat<3, 1>& out) const { getFrameVelocity(frames[frameIdx], out); }
  void getFrameAngularVelocity(size_t frameIdx, Mat<3, 1>& out) const {
    getFrameAngularVelocity(frames[frameIdx], out);
  }

  // Positional Jacobian of a world point fixed to body (columns root to tip).
  void getSparseJacobian(size_t body, const Mat<3, 1>& pointW, SparseJacobian& j) const;
  void getSparseJacobian(size_t body, Frame frame, const Mat<3, 1>& point, SparseJacobian& j) const;
  // Angular Jacobian of a body; body -1 gives no columns.
  void getSparseRotationalJacobian(size_t body, SparseJacobian& j) const;
  void getTimeDerivativeOfSparseJacobian(size_t body, Frame frame, const Mat<3, 1>& point, SparseJacobian& j) const;
  void getTimeDerivativeOfSparseRotationalJacobian(size_t body, SparseJacobian& j) const;

  // ------------------------------------------------- state (between steps) --
  // Copies gc, updates the kinematics and drops this step's contacts.
  void setGeneralizedCoordinate(const VecDyn& gc);
  // The count must equal gcDim ("Wrong number of generalized coordinate
  // elements").
  void setGeneralizedCoordinate(std::initializer_list<double> gc);
  void setGeneralizedVelocity(const VecDyn& gv);
  void setGeneralizedVelocity(std::initializer_list<double> gv);
  // The caller sizes both.
  void getState(VecDyn& gc, VecDyn& gv) const;
  const VecDyn& getGeneralizedCoordinate() const { return gc; }
  const VecDyn& getGeneralizedVelocity() const { return gv; }
  // Floating base: gc[0..2] / gc[3..6]; fixed base: the pose of body 0.
  void setBasePos(const Mat<3, 1>& pos);
  void setBaseOrientation(const Mat<3, 3>& rot);
  void setBaseOrientation(const Mat<4, 1>& quat);
  // Fatal for a fixed base.
  void setBaseVelocity(const Mat<3, 1>& vel);
  void setBaseAngularVelocity(const Mat<3, 1>& angVel);
  // Fatal unless the base is floating.
  void getBaseOrientation(Mat<4, 1>& quat) const;

  // ------------------------------------------------------- actuation --
  // Feed-forward generalized force, kept until set again. The count must equal
  // dof ("Wrong number of generalized force elements").
  void setGeneralizedForce(std::initializer_list<double> tau);
  void setGeneralizedForce(const VecDyn& tau);
  const VecDyn& getGeneralizedForce() const { return feedForward; }
  // FORCE_CONTROL or PD_PLUS_FEEDFORWARD_TORQUE.
  void setControlMode(int32_t mode);
  int32_t getControlMode() const { return controlMode; }
  // PD gains per gv index (length dof each).
  void setPdGains(const VecDyn& p, const VecDyn& d);
  // Position target (length gcDim; a quaternion for a spherical joint) and
  // velocity target (length dof).
  void setPdTarget(const VecDyn& position, const VecDyn& velocity);
  void setIntegrationScheme(int32_t scheme) { integrationScheme = scheme; }
  int32_t getIntegrationScheme() const { return integrationScheme; }
  // Viscous joint damping and rotor inertia per gv index (length dof).
  void setJointDamping(const VecDyn& damping);
  void setRotorInertia(const VecDyn& inertia);
  // Effort limits per gv index: the generalized force of feed-forward, PD and
  // damping is clipped to [-limit, limit] (length dof).
  void setEffortLimits(const VecDyn& limit);
  // Sum of the generalized forces of the last step (after the clip, springs
  // and loads included).
  const VecDyn& getActuation() const { return actuation; }

  // External loads for the next step. The vector and the point are given in
  // the frames named; the Jacobian is taken at once, at the current pose.
  void setExternalForce(size_t localIdx, Frame forceFrame, const Mat<3, 1>& force, Frame posFrame,
                        const Mat<3, 1>& pos);

  // ---------------------------------------------------------- dynamics --
  // Forward dynamics of the current state: ga, and the free velocity
  // gvWork = gv + dt ga, with gravity, actuation, springs, loads and the
  // implicit damping terms. The route of every step; allocates nothing.
  void articulatedBodyAlgorithm(const Mat<3, 1>& gravity, double dt);
  // The joint-space mass matrix at the current pose, rotor inertia included.
  const MatDyn& getMassMatrix();
  // Bias forces C(q, u) u + g(q) at the current state: the generalized force
  // that holds the robot at zero acceleration.
  const VecDyn& getNonlinearities(const Mat<3, 1>& gravity);
  // The inverse of getMassMatrix(), through its sparse factor.
  const MatDyn& getInverseMassMatrix();
  // Minv := (M + diag(dampedDiag))^-1 by the tree-sparse factor M = L^T L. M
  // and Minv are dof x dof.
  void computeSparseInverse(const MatDyn& M, MatDyn& Minv);
  // compositeMass from massOf after a caller changed masses.
  void updateMassInfo();
  // Inverse dynamics: tau produces `acceleration` from the current gv, with
  // gravity, and with this step's contact impulses, external loads and wire
  // forces when includeLoads is set. Leaves the body accelerations in linAccW
  // and angAccW, and the joint reactions in jointForceW / jointTorqueW when
  // storeJointForces is set. A spherical joint's three acceleration entries
  // are taken as a world-frame angular acceleration. Allocates nothing.
  void recursiveNewtonEuler(const Mat<3, 1>& gravity, bool includeLoads, bool storeJointForces,
                            const VecDyn& acceleration, VecDyn& tau);
  // 1/2 u^T M u (rotor inertia counts).
  double getKineticEnergy();
  // -sum m_b (comW[b] . gravity).
  double getPotentialEnergy(const Mat<3, 1>& gravity) const;
  double getEnergy(const Mat<3, 1>& gravity);
  // About a world point, with inertiaW as the last recursion left it.
  void getAngularMomentum(const Mat<3, 1>& reference, Mat<3, 1>& momentum) const;
  // The older mass-matrix route: gvWork := massMatrixInverse tauStar, with the
  // bias taken from inverseDynamicsTau and impulseBias added. Both, and
  // massMatrixInverse, are the caller's to fill. No step calls it.
  void integrateWithoutContact(const Mat<3, 1>& gravity, double dt);
  // The older dense route to the contact blocks: contactResponse, delassus and
  // impactVel of every contact from massMatrixInverse (the caller fills it,
  // with computeSparseInverse say) and the Jacobians of this step's
  // preContactSolverUpdate1. Self-collision pairs take their block from the
  // merged Jacobian directly. dt is not used. No step calls it.
  void getFullDelassusAndTauStar(double dt);

  // ------------------------------------------------------------- pins --
  // Pins between bodies named by frame bodyName, anchored in the first frame,
  // meant at configuration gc. Take effect in initializeConstraints.
  void addConstraints(const std::vector<PinConstraintDefinition>& definitions, const VecDyn& gc);
  void initializeConstraints();
  const std::vector<PinConstraint>& getPins() const { return pins; }

  // -------------------------------------------------------------- sensors --
  // Measures every sensor that is due at the world's time (Sensor::isDue),
  // walking sensorMap: an inertial unit from this step's accelerations (the
  // inverse dynamics must have filled linAccW and angAccW), every other kind
  // through its own update. Sensors with the VISUALIZER source are left alone.
  // The step calls it from integrate.
  void updateSensorsIfNecessary(World& world) override;
  // The sensor of that full name ("link:name"); an unknown name is a fatal
  // message.
  std::shared_ptr<Sensor> getSensor(const std::string& name) const;
  // The same, as its kind; a sensor of another kind is a fatal message too.
  template <typename SensorKind>
  std::shared_ptr<SensorKind> getSensor(const std::string& name) const {
    std::shared_ptr<Sensor> sensor = getSensor(name);
    std::shared_ptr<SensorKind> typed = std::dynamic_pointer_cast<SensorKind>(sensor);
    if (sensor && !typed) reportWrongSensorKind(*sensor);
    return typed;
  }
  bool hasSensor(const std::string& name) const { return sensorMap.count(name) != 0; }
  // The sensors of one kind, ordered by name.
  std::vector<std::shared_ptr<Sensor>> getSensorsOfType(Sensor::Type type) const;

  // ------------------------------------------------------------ queries --
  size_t getDOF() const { return dof; }
  size_t getGeneralizedVelocityDim() const { return dof; }
  size_t getGeneralizedCoordinateDim() const { return gcDim; }
  size_t getNumberOfBodies() const { return nbody; }
  // Mass of the whole system.
  double getTotalMass() const { return nbody ? compositeMass[0] : 0.0; }
  const std::vector<std::string>& getBodyNames() const { return bodyNames; }
  const std::vector<std::string>& getMovableJointNames() const { return movableJointNames; }
  const std::vector<CoordinateFrame>& getFrames() const { return frames; }
  std::vector<CoordinateFrame>& getFrames() { return frames; }
  // The geoms, each at its pose of the last placement.
  const std::vector<CollisionDefinition>& getCollisionBodies() const {
    placeDeferredGeoms();
    return collisionDefinitions;
  }
  const std::vector<VisObject>& getVisColOb() const { return visColObj; }
  const std::vector<VisObject>& getVisOb() const { return visObj; }
  const SensorMap& getSensors() const { return sensorMap; }
  Joint::Type getRootJointType() const { return jointType[0]; }
  const std::string& getResourceDir() const { return resourceDir; }
  const std::string& getRobotFileName() const { return robotFileName; }
  const std::string& getRobotTopDir() const { return robotTopDir; }
  double getTimeStep() const { return timeStep; }
  bool hasImu() const { return imuPresent; }
  void setMaxSelfCollisionContacts(int n) { maxSelfCollisionContacts = n; }

  // ================================================================ tables ==
  size_t nbody = 0;
  size_t dof = 0;    // length of gv
  size_t gcDim = 0;  // length of gc
  VecDyn gc, gv;

  // Indexed by body.
  std::vector<size_t> parent;                 // parent[0] is -1
  std::vector<std::vector<size_t>> children;  // direct children, in index order
  std::vector<size_t> leaves;                 // bodies without children; never the root
  std::vector<size_t> depth;                  // depth[0] = 1
  std::vector<Joint::Type> jointType;
  std::vector<size_t> gcDimOf, gvDimOf;
  // First gc / gv index of the body's joint. For a fixed base, entry 0 is
  // 4294967295: test the root's type before indexing with it.
  std::vector<size_t> gcIdx, gvIdx;
  std::vector<size_t> gcChain, gvChain;  // gc / gv entries from the root to the body, its joint included
  std::vector<double> massOf;            // after merging
  std::vector<double> compositeMass;     // body and subtree
  std::vector<Mat<3, 3>> inertiaB;       // about the centre of mass, body frame
  std::vector<Mat<3, 1>> comB;           // centre of mass, body frame
  std::vector<Mat<3, 1>> jointPosP;      // joint origin in the parent body frame
  std::vector<Mat<3, 3>> jointRotP;      // joint frame in the parent body frame; not at 0
  std::vector<Mat<3, 1>> jointAxisB;     // joint axis in the joint frame
  std::vector<std::string> bodyNames;
  std::vector<std::string> movableJointNames;  // "ROOT" for a floating base, then bodies 1..
  std::map<std::string, size_t> jointNameToGv;
  VecDyn velocityLimitOf;

  // Indexed by gv index.
  std::vector<size_t> dofParent;  // the dof just above in the tree; -1 at the top
  std::vector<Mat<2, 1>> jointLimits;
  VecDyn jointDampingGv, jointFrictionGv, rotorInertiaGv;
  VecDyn tauUpper, tauLower;  // +-1e150 unless the joint gives an effort

  std::vector<SpringElement> springs;

  // Frames and geometry.
  std::vector<CoordinateFrame> frames;
  std::vector<CollisionDefinition> collisionDefinitions;
  // The split of collisionDefinitions made by splitGeomPlacement, and for the
  // on-demand geoms the body poses of the last updateCollisionInStep.
  std::vector<uint32_t> geomsPlacedEachStep_;
  std::vector<uint32_t> geomsPlacedOnDemand_;
  std::vector<Mat<3, 3>> onDemandRotW_;
  std::vector<Mat<3, 1>> onDemandPosW_;
  mutable bool onDemandGeomsStale_ = false;
  std::vector<VisObject> visColObj;  // one per collision definition, same index
  std::vector<VisObject> visObj;     // the model's visuals
  std::vector<dTriMeshDataID> meshData;
  // Triangle arrays the collision library points into. The inner vectors are
  // only ever moved, never copied, so their buffers stay where the geoms
  // expect them.
  std::vector<std::vector<float>> meshVertices;
  std::vector<std::vector<uint32_t>> meshIndices;
  SensorMap sensorMap;

  std::string resourceDir, robotFileName, robotTopDir, robotFilePath, urdfString;
  Mat<3, 1> baseJointPos{0.0, 0.0, 0.0};
  Mat<3, 3> baseJointRot{0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};

  // The root Child at index 0 while building; empty afterwards.
  std::vector<Child> child;

  // Kinematics, indexed by body.
  std::vector<Mat<3, 3>> rotW;     // body frame to world
  std::vector<Mat<3, 1>> posW;     // body origin (joint origin) in the world
  std::vector<Mat<3, 1>> relPosW;  // from the parent's origin to this origin
  std::vector<Mat<3, 3>> preRotW;  // joint frame before the joint moves (revolute, spherical)
  std::vector<Mat<3, 3>> rotJ;     // rotation made by the joint coordinate (revolute, spherical)
  std::vector<Mat<3, 1>> axisW;    // joint axis in the world
  std::vector<Mat<3, 1>> comRelW;  // rotW comB
  std::vector<Mat<3, 1>> comW;     // centre of mass in the world
  std::vector<Mat<3, 1>> linVelW;  // velocity of the body origin
  std::vector<Mat<3, 1>> angVelW;
  std::vector<Mat<3, 1>> jointLinVelW;      // a prismatic joint's own velocity
  std::vector<Mat<3, 1>> jointAngVelW;      // a revolute or spherical joint's own angular velocity
  std::vector<Mat<3, 1>> linAccW, angAccW;  // written by the dynamics stages

  // Mass matrix and inverse dynamics, sized by init.
  MatDyn massMatrix, massMatrixInverse, factor;  // dof x dof
  VecDyn factorDiagInverse;                      // reciprocals of the factor's diagonal
  VecDyn nonlinearities;                         // result of getNonlinearities
  std::vector<Mat<3, 3>> inertiaW;               // about the centre of mass, world frame
  std::vector<Mat<3, 3>> inertiaJointW;          // the same about the joint origin
  std::vector<Mat<3, 3>> compositeInertiaW;      // subtree about its centre of mass
  std::vector<Mat<3, 1>> compositeMoment;        // sum of mass times comW over the subtree
  std::vector<Mat<3, 1>> compositeComW;
  std::vector<Mat<3, 1>> jointForceW, jointTorqueW;  // what each joint supplies to its subtree
  VecDyn dampedDiag;                                 // (dt/2)(D + Kd + (dt/2)(K + Kp))
  VecDyn dampedDiagRate;                             // dampedDiag / dt
  bool dampedMassValid = false;

  // Forward dynamics and integration.
  VecDyn gvWork;       // free velocity, then the solver's working velocity
  VecDyn gvFree;       // gvWork before the solver
  VecDyn ga;           // generalized acceleration of the last algorithm run
  VecDyn realisedAcc;  // (gvWork - gv) / dt after the solver
  VecDyn gvMean;       // velocity that moves gc
  VecDyn inverseDynamicsTau, feedForward, actuation, tauStar, impulseBias;
  VecDyn pGain, dGain, posTarget, velTarget, posError;
  Mat<6, 6> baseInertiaInverse;
  VecDyn rkVel1, rkVel2, rkVel3, rkVel4, rkDelta1, rkDelta2, rkDelta3, rkDelta4;
  VecDyn rkGc0, rkGc1, rkGc2, rkGc3;
  int32_t controlMode = FORCE_CONTROL;
  int32_t integrationScheme = TRAPEZOID;
  int32_t activeScheme = TRAPEZOID;
  AbaDataList abaData;
  AbaData3List abaData3;
  // Jacobian of each external load; entries past externalLoadValues_.size()
  // are kept as storage, so applying loads every step allocates nothing.
  std::vector<SparseJacobian> externalForceJacobians;

  // Contact side, indexed by contact. The three vectors only grow; entries
  // past contactCount are storage.
  size_t contactCount = 0;
  std::vector<SparseJacobian> contactJacobians;       // world frame, compact base form
  std::vector<SparseJacobian> contactJacobiansLocal;  // contact frame, base expanded
  std::vector<MatDyn> contactResponse;                // 3 x dof: J_c M^-1, column by gv index
  SparseJacobian jacobianScratch;

  // Joint limits: the response of a unit impulse along each body's joint
  // (valid in a step where the body has a limit problem), and the indices of
  // this step's limit problems.
  std::vector<VecDyn> limitResponse;
  std::vector<size_t> limitProblemLog;
  // Per body: the part of a joint limit's impulse that came from the warm
  // start and may still be taken back in this step (0 without warm start).
  std::vector<double> limitWarmStart;

  // Pins (loops closed inside the tree).
  std::vector<PinConstraint> pins;
  std::vector<PinConstraintDefinition> pinDefinitions;
  VecDyn pinConfiguration;

 protected:
  friend class urdf::LoadFromURDF2;
  friend class mjcf::LoadFromMjcf;
  friend class World;

  // URDF text that came from filePath.
  ArticulatedSystem(const std::string& filePath, const std::string& urdfText, const std::string& resPath,
                    const std::vector<std::string>& jointOrder, ArticulatedSystemOption option);

  // Turns child[0] into the tables. Every constructor ends here.
  void init();
  // Runs init, releasing the geoms if a fatal message unwinds out of it.
  void initOrRelease();
  // Path handling of the file constructors: a missing file and an extension
  // other than "urdf" or "xml" are fatal.
  void setRobotFile(const std::string& filePath, const std::string& resPath);
  // Empties this step's contacts and the contact Jacobians.
  void cleanContacts();
  // a := a - b, column by column in index order; columns that cancel exactly
  // are dropped, and with skipBase the six base columns of both vanish.
  void jacoSub(const SparseJacobian& b, SparseJacobian& a, bool skipBase);
  // contactJacobiansLocal[c] from contactJacobians[c] and the contact frame.
  void rotateContactJacobian(size_t c);
  // The contact stage of the articulated-body algorithm: response and block of
  // every contact by one sweep each over the factors just computed, then the
  // self-collision post-pass and the impact velocities.
  void computeContactResponses();
  // Contacts first .. first + count - 1 (count at most kContactsPerSweep) in
  // one sweep, three lanes per contact (its axes).
  void sweepContacts(size_t first, size_t count);
  static constexpr size_t kContactsPerSweep = 2;
  using ContactLanes = Eigen::Array<double, 3 * kContactsPerSweep, 1>;
  // Lanes of sweepContacts, laid out as those of sweepLimits; the mask has bit
  // q for the joints on contact q's path, bit q + 4 at its body.
  std::vector<ContactLanes, AlignedAllocator<ContactLanes, 32>> contactLaneVectors, contactLaneResponse;
  std::vector<uint8_t> contactLanePath;
  // Bodies 1 .. nbody - 1 by depth in the tree, then by index: the order of
  // the sweeps' passes, which puts bodies that do not wait for each other
  // next to each other (made on first use).
  std::vector<size_t> sweepOrder;
  const std::vector<size_t>& bodiesByDepth();
  void computeImpactVelocities();
  // Whether contact c is the owning side of a pair of this robot's own points
  // (a self-collision or a pin).
  bool isMergedOwner(const Contact& c) const;
  // For the limit problems limitProblemLog[first .. first + count) (count at
  // most W): limitResponse[b] := M^-1 e along the joint of each problem's
  // body b (direction n = basis[0] for a spherical joint), and the problem's
  // response along the constraint itself. The problems share one pass over
  // the articulated-body factors, one lane each.
  template <int W>
  void sweepLimits(size_t first, size_t count, ContactProblemList& problems);
  static constexpr size_t kMaxLimitLanes = 8;
  // Lanes of sweepLimits: spatial forces (up) and accelerations (down), six
  // entries per body, and the responses, one entry per gv index; each entry
  // holds one number per problem.
  std::vector<double, AlignedAllocator<double, 32>> limitLaneVectors, limitLaneResponse;
  // Per body: bit r set if lane r's joint lies below the body's joint, bit
  // r + 8 if it is the body's joint.
  std::vector<uint16_t> limitLaneBelow;
  // The compact Jacobian of the contact path: the same joint columns as
  // getSparseJacobian, but for a floating base only the idx entries 0..5 and
  // column 3, which holds pointW - posW[0]; the reader builds the base part
  // from it.
  void getSparseJacobian_internal(size_t body, const Mat<3, 1>& pointW, SparseJacobian& j) const;

  // The stages of init, in order.
  void checkTree(const Child& root) const;
  void appendRootFrame(const Child& root);
  void sizeTables();
  void fillRootBody(Child& root);
  void indexBodies(Child& root);
  void fillBody(Child& node, size_t i, size_t p);
  void computeCompositeMass();
  void computeDofParent();
  void resolveFrameParents();
  void placeFixedBase(const Child& root);
  void ignoreCollisionWithMassiveAncestor();
  void setDefaultCoordinates();
  void registerSensors(Child& node);
  // The inertial unit's measurement at its frame.
  void measureInertialUnit(InertialMeasurementUnit& imu);
  void reportWrongSensorKind(const Sensor& sensor) const;
  void warnAboutMasslessSubtrees() const;

  // The kinematics of one body from its parent's.
  void updateBodyKinematics(size_t i);
  // Fills jointShape_ from jointAxisB and jointRotP (end of init).
  void classifyJointShapes();
  // Per body, what the kinematics pass may shorten: the joint axis is the unit
  // coordinate axis axisIndex (-1: any other axis) of a joint frame that is the
  // parent's own (jointRotP exactly the identity) or not.
  struct JointShape {
    int8_t axisIndex = -1;
    bool identityFrame = false;
  };
  std::vector<JointShape> jointShape_;

  // Sizes and zeroes the tables of the dynamics stages (end of init).
  void sizeDynamicsTables();
  // Fills M (dof x dof) by the composite-body recursion; entries that are
  // structurally zero are not written.
  void computeMassMatrix(MatDyn& M);
  // The implicit diagonal for time step dt.
  void computeDampedMass(double dt);
  // inertiaW[b] = rotW[b] inertiaB[b] rotW[b]^T for every body.
  void updateWorldInertia();
  // Factor L^T L of M + diag(extraDiagonal) along the dofParent chains, and the
  // full inverse from it. extraDiagonal may be null.
  void invertTreeSparse(const MatDyn& M, const double* extraDiagonal, MatDyn& Minv);

  // Steps of the articulated-body algorithm.
  void computeGeneralizedForces();
  void computePositionError();
  void addSpringForces(VecDyn& tau) const;
  void addLoadForces(VecDyn& tau) const;
  void abaBackwardBody(size_t b);
  void abaRoot(const Mat<3, 1>& gravity);
  void abaForwardBody(size_t b);
  // sum += the inertia about body b's origin taken to its parent's (a shift
  // along relPosW[b]); both symmetric and held in their lower triangles.
  void addInertiaToParent(size_t b, const Eigen::Matrix<double, 6, 6>& inertia,
                          Eigen::Matrix<double, 6, 6>& sum) const;

  // Integration.
  void integratePosition(VecDyn& gc, const VecDyn& velocity, double dt);
  void rkIntegrate(const Mat<3, 1>& gravity, double dt);
  void runRungeKutta(const Mat<3, 1>& gravity, double dt);
  // Moves the loads of the step into the display lists and empties them.
  void clearExternalForces();

  ArticulatedSystemOption option_;
  double timeStep = 0.001;  // turns contact impulses into forces in recursiveNewtonEuler
  // Work arrays of recursiveNewtonEuler (force and moment per body) and of the
  // energy, kept so that neither allocates.
  std::vector<Mat<3, 1>> rneForce, rneMoment;
  VecDyn momentumScratch;
  int maxSelfCollisionContacts = 1;
  bool imuPresent = false;
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_ARTICULATEDSYSTEM_ARTICULATEDSYSTEM_HPP
