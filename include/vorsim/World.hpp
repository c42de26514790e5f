// The simulated world: it owns every object and wire, the collision space, the
// material table and the contact solver, and advances all of them in fixed
// steps. One step is integrate1 (collision, contact records, Delassus blocks)
// then integrate2 (free velocities, contact problems, solver, integration).
#ifndef VORSIM_WORLD_HPP
#define VORSIM_WORLD_HPP

#include <ode/ode.h>

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "vorsim/Collision.hpp"
#include "vorsim/Materials.hpp"
#include "vorsim/MjcfTypes.hpp"
#include "vorsim/Object.hpp"
#include "vorsim/VorSimTinyXmlWrapper.hpp"
#include "vorsim/contact/BisectionContactSolver.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/contact/WarmStartCache.hpp"
#include "vorsim/math.hpp"
#include "vorsim/object/ArticulatedSystem/JointAndBodies.hpp"
#include "vorsim/object/Compound.hpp"
#include "vorsim/object/LengthConstraint.hpp"
#include "vorsim/object/TerrainGenerator.hpp"

namespace vorsim {

class SingleBodyObject;
class Sphere;
class Box;
class Cylinder;
class Capsule;
class Ground;
class HeightMap;
class Mesh;
class ArticulatedSystem;

// One hit of a ray: the collision library's point (its g1 is the geom hit), the
// hit point and the object hit.
struct RayCollisionItem {
  dContactGeom rayContact;
  Mat<3, 1> position;
  Object* object;

  const Mat<3, 1>& getPosition() const { return position; }
  Object* getObject() const { return object; }
};

struct RayCollisionList {
  std::vector<RayCollisionItem> items;
  size_t size = 0;  // hits of the last query

  void resize(size_t n) { items.resize(n); }
  size_t getNumOfHits() const { return size; }
  const RayCollisionItem& operator[](size_t i) const { return items[i]; }
};

class World {
 public:
  static constexpr size_t kAllBits = size_t(-1);

  World();
  // A world read from a file. A text holding "<mujoco" anywhere is an MJCF
  // model (loadMjcf); otherwise one holding "<vorsim" is a world
  // configuration file, read with the caller's parameters (loadVorSimConfig);
  // any other file leaves the world empty. A file that cannot be opened is the
  // fatal message "Could not open the vorsim configuration file: PATH". When a
  // fatal message of the reading unwinds (a throwing callback), everything
  // built so far is released.
  explicit World(const std::string& configFile, const std::unordered_map<std::string, std::string>& params = {});
  virtual ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // ---- stepping ----
  void integrate() {
    integrate1();
    integrate2();
  }
  // Clears the last step's problems, runs collision detection, makes contacts
  // and problems, appends constraints and wires, and lets every non-static
  // object build its Delassus blocks. Forces applied after this act in this step.
  void integrate1();
  // Advances time, computes free velocities, fills the problems, solves them and
  // integrates every non-static object.
  void integrate2();

  void setTimeStep(double dt);
  double getTimeStep() const { return timeStep_; }
  void setGravity(const Mat<3, 1>& gravity) { gravity_ = gravity; }
  void setGravity(const Eigen::Vector3d& gravity) { gravity_ = gravity; }
  const Mat<3, 1>& getGravity() const { return gravity_; }
  double getWorldTime() const { return worldTime_; }
  void setWorldTime(double time) { worldTime_ = time; }
  int getWorldStep() const { return worldStep_; }
  int getConfigurationNumber() const { return configurationNumber_; }

  // Warns when erp is negative; stores both in any case.
  void setERP(double erp, double erp2 = 0.0);
  void setContactSolverParam(double alpha_init, double alpha_min, double alpha_decay, int maxIter, double threshold);
  contact::BisectionContactSolver& getContactSolver() { return solver_; }
  const contact::BisectionContactSolver& getContactSolver() const { return solver_; }
  const ContactProblemList& getContactProblem() const { return contactProblems_; }

  // Solver options beyond the default algorithm, all off by default; with them
  // off a step gives the same results, bit for bit.
  // Warm start: each problem starts from the impulse of the matching
  // constraint of the last step (same pair of geoms, or same owner and index,
  // nearest point within the tolerance), applied before the first sweep.
  // Switching it on or off forgets the last step.
  void setWarmStart(bool enable);
  bool getWarmStart() const { return solver_.warmStart; }
  // Largest distance in metres between a point and the last step's point it
  // takes its impulse from; 0.01 by default. A negative or NaN value is a
  // fatal error.
  void setWarmStartTolerance(double tolerance);
  double getWarmStartTolerance() const { return warmStartCache_.getTolerance(); }
  // Exact Coulomb sliding: a sliding contact's friction is exactly opposite to
  // its slip (see contact::BisectionContactSolver::exactCoulomb).
  void setExactCoulombSliding(bool enable) { solver_.exactCoulomb = enable; }
  bool getExactCoulombSliding() const { return solver_.exactCoulomb; }
  // Problems of the last step that started from an impulse of the step before.
  size_t getWarmStartedProblemCount() const { return warmStartedProblems_; }
  // Collision points found in the last step, before filtering.
  int getNumberOfCollisionPoints() const { return numContacts_; }

  // ---- materials ----
  void setDefaultMaterial(double friction, double restitution, double restThreshold);
  void setDefaultMaterial(double friction, double restitution, double restThreshold, double staticFriction,
                          double staticThreshold);
  void setMaterialPairProp(const std::string& name1, const std::string& name2, double friction, double restitution,
                           double restThreshold);
  void setMaterialPairProp(const std::string& name1, const std::string& name2, double friction, double restitution,
                           double restThreshold, double staticFriction, double staticThreshold);
  void updateMaterialProp(const MaterialManager& other);
  const MaterialManager& getMaterialManager() const { return materialManager_; }

  // ---- registry ----
  Sphere* addSphere(double radius, double mass, const std::string& material = "default", size_t collisionGroup = 1,
                    size_t collisionMask = kAllBits);
  Box* addBox(double xLength, double yLength, double zLength, double mass, const std::string& material = "default",
              size_t collisionGroup = 1, size_t collisionMask = kAllBits);
  Cylinder* addCylinder(double radius, double height, double mass, const std::string& material = "default",
                        size_t collisionGroup = 1, size_t collisionMask = kAllBits);
  Capsule* addCapsule(double radius, double height, double mass, const std::string& material = "default",
                      size_t collisionGroup = 1, size_t collisionMask = kAllBits);
  // A static plane z = height, in the fixed collision group 0x80000000.
  Ground* addGround(double height = 0.0, const std::string& material = "default", size_t collisionMask = kAllBits);
  // Static terrain (HeightMap): from the caller's grid heights[y * xSamples + x],
  // from generated terrain, from a text file, from a PNG image, or as a copy of
  // another map (with that map's material).
  HeightMap* addHeightMap(size_t xSamples, size_t ySamples, double xSize, double ySize, double centerX, double centerY,
                          const std::vector<double>& heights, const std::string& material = "default",
                          size_t collisionGroup = 1, size_t collisionMask = kAllBits);
  HeightMap* addHeightMap(double centerX, double centerY, const TerrainProperties& terrainProperties,
                          const std::string& material = "default", size_t collisionGroup = 1,
                          size_t collisionMask = kAllBits);
  HeightMap* addHeightMap(const std::string& file, double centerX, double centerY,
                          const std::string& material = "default", size_t collisionGroup = 1,
                          size_t collisionMask = kAllBits);
  HeightMap* addHeightMap(const std::string& pngFile, double centerX, double centerY, double xSize, double ySize,
                          double heightScale, double heightOffset, const std::string& material = "default",
                          size_t collisionGroup = 1, size_t collisionMask = kAllBits);
  HeightMap* addHeightMap(const HeightMap* heightMap, size_t collisionGroup = 1, size_t collisionMask = kAllBits);
  // One rigid body of several primitive shapes (Compound); each child's geom
  // gets the child's index as its local index and the child's material.
  Compound* addCompound(const std::vector<Compound::CompoundObjectChild>& children, double mass, const Mat<3, 1>& com,
                        const Mat<3, 3>& inertia, size_t collisionGroup = 1, size_t collisionMask = kAllBits);

  // A triangle mesh from an OBJ file, scaled once; inertia about the centre of
  // mass and centre of mass in the mesh's frame.
  Mesh* addMesh(const std::string& objFile, double mass, const Mat<3, 3>& inertia, const Mat<3, 1>& com,
                double scale = 1.0, const std::string& material = "default", size_t collisionGroup = 1,
                size_t collisionMask = kAllBits);
  // The same with inertia and centre of mass of the closed mesh filled at
  // uniform density (a mesh that encloses no volume gets its bounding box's, with
  // a warning).
  Mesh* addMesh(const std::string& objFile, double mass, double scale = 1.0, const std::string& material = "default",
                size_t collisionGroup = 1, size_t collisionMask = kAllBits);
  // A copy of an existing mesh object's triangles and mass properties.
  Mesh* addMesh(const Mesh* source, const std::string& material = "default", size_t collisionGroup = 1,
                size_t collisionMask = kAllBits);

  // A robot from a URDF file or URDF text. Mesh files are looked up in
  // resourceDir (by default the file's directory). The group and mask apply to
  // every geom whose description kept the default group 1 and mask all bits;
  // geoms described with their own keep them. jointOrder puts the named
  // joints first among their siblings.
  ArticulatedSystem* addArticulatedSystem(const std::string& urdfPathOrText, const std::string& resourceDir = "",
                                          const std::vector<std::string>& jointOrder = {}, size_t collisionGroup = 1,
                                          size_t collisionMask = kAllBits,
                                          ArticulatedSystemOption option = ArticulatedSystemOption());
  // A robot from a tree built in code; group and mask as above.
  ArticulatedSystem* addArticulatedSystem(const Child& root, const std::string& resourceDir = "",
                                          size_t collisionGroup = 1, size_t collisionMask = kAllBits,
                                          ArticulatedSystemOption option = ArticulatedSystemOption());
  // A robot from a URDF template: the file's text goes through the text stage
  // of world files first ("[THIS_DIR]", "@@name" parameters declared under a
  // <params> element of the robot or given in `params`, arrays, {arithmetic}),
  // and the result is read as URDF. Mesh files are looked up in resourceDir,
  // by default the template's directory.
  ArticulatedSystem* addArticulatedSystem(const std::string& templateFile,
                                          const std::unordered_map<std::string, std::string>& params,
                                          const std::string& resourceDir = "", size_t collisionGroup = 1,
                                          size_t collisionMask = kAllBits,
                                          ArticulatedSystemOption option = ArticulatedSystemOption());

  StiffLengthConstraint* addStiffWire(Object* object1, size_t localIdx1, const Eigen::Vector3d& pos1, Object* object2,
                                      size_t localIdx2, const Eigen::Vector3d& pos2, double length);
  CompliantLengthConstraint* addCompliantWire(Object* object1, int localIdx1, const Eigen::Vector3d& pos1,
                                              Object* object2, int localIdx2, const Eigen::Vector3d& pos2,
                                              double length, double stiffness);
  CustomLengthConstraint* addCustomWire(Object* object1, size_t localIdx1, const Eigen::Vector3d& pos1, Object* object2,
                                        size_t localIdx2, const Eigen::Vector3d& pos2, double length);

  // The first object (or wire) of that name in list order, or null.
  Object* getObject(const std::string& name);
  LengthConstraint* getWire(const std::string& name);
  Constraints* getConstraint(const std::string& name);
  std::vector<Object*>& getObjList() { return objects_; }
  const std::vector<std::unique_ptr<LengthConstraint>>& getWires() const { return wires_; }

  // The last object takes the freed index. Wires attached to the object go too
  // (by a walk that skips the wire moved into a freed slot: remove wires first
  // when two of them hang on one object). Not between integrate1 and integrate2.
  void removeObject(Object* object);
  void removeObject(LengthConstraint* wire);

  // ---- rays ----
  // Casts one ray against the space. With closestOnly the nearest hit is in
  // item 0 and size is 1. Geoms of the owner (objectIndex, localIndex) are left
  // out. The list stays valid until the next call. A direction that is zero
  // or not finite hits nothing; any other is used as a unit vector.
  const RayCollisionList& rayTest(const Eigen::Vector3d& start, const Eigen::Vector3d& direction, double length,
                                  bool closestOnly = true, size_t objectIndex = size_t(-1),
                                  size_t localIndex = size_t(-1), size_t collisionMask = kAllBits);

  // ---- files ----
  // Writes the world as a configuration file directory/fileName that the
  // file constructor reads back: gravity, time step, ERP, every object (its
  // kind, size, mass, inertia, material, collision group and mask, body type,
  // pose and velocity; a robot's qpos and qvel) and every wire. Unnamed
  // objects are written as "unnamed_" + their index. A robot that was not read
  // from a URDF file is written as URDF next to the world file first. Material
  // pairs, solver settings, damping and custom wire tensions are not written.
  // Returns whether the file was written; the world is not changed.
  bool exportToXml(const std::string& directory, const std::string& fileName);
  // The configuration file the world was read from, if any.
  const std::string& getConfigFile() const { return configFile_; }

  // While a RayBatch is alive, closest-hit rayTest calls cast against a
  // snapshot of the space taken at the first such call, and test only the
  // geoms near each ray. Results are those of rayTest outside a batch, as long
  // as nothing moves meanwhile: a geom moved during the batch is seen where it
  // was. Sensors open one for each update; batches nest and share the
  // outermost one's snapshot.
  class RayBatch {
   public:
    explicit RayBatch(World& world) : world_(world) {
      if (world_.rayBatchDepth_++ == 0) world_.raySceneFresh_ = false;
    }
    ~RayBatch() { --world_.rayBatchDepth_; }
    RayBatch(const RayBatch&) = delete;
    RayBatch& operator=(const RayBatch&) = delete;

   private:
    World& world_;
  };

  // The collision space, with every geom at its pose of the last step (geoms
  // that can touch nothing else are not placed while stepping; they are
  // placed here, as before every ray cast).
  dSpaceID getCollisionSpace() {
    placeDeferredGeoms();
    return collisionSpace_;
  }
  // Never locked by the library; for a client's threads.
  std::mutex& getMutex() { return worldMutex_; }

 protected:
  friend class WorldConfigReader;
  // One reusable object template of a world file (<object_class>): its type,
  // the attribute texts of its element (read when an instance is made, under
  // the instance's own attributes), and the children of a compound class.
  struct XmlObjectClass {
    std::string name;
    ObjectType type = UNRECOGNIZED;
    std::unordered_map<std::string, std::string> attributes;
    std::vector<Compound::CompoundObjectChild> children;
  };

  void init();
  // Releases every object, wire and the collision space, as the destructor
  // does (for a constructor that fails half-way).
  void releaseAll();

  // Reads a world configuration file: its text stage, then its elements in
  // order (includes, materials, gravity, time step, ERP, object classes,
  // objects, wires). See docs/world-files.md.
  void loadVorSimConfig(const std::string& path, const std::unordered_map<std::string, std::string>& params);
  // Reads an MJCF model: static geoms of the worldbody, single bodies, and
  // one ArticulatedSystem per body with sub-bodies (or a moving joint).
  void loadMjcf(const std::string& path);
  // One MJCF geom as a single body, placed by `parent` (the pose of the frame
  // the geom is written in). Its mass comes from bodyElement's <inertial>, if
  // any, else from its density. Null after a fatal message.
  SingleBodyObject* addMjcfGeom(const VorSimTinyXmlWrapper& element, const mjcf::DefaultMap& defaults,
                                const mjcf::MjcfAssets& assets, const mjcf::MjcfCompilerSetting& compiler,
                                const Mat<3, 3>& parentRotation, const Mat<3, 1>& parentPosition,
                                const VorSimTinyXmlWrapper* bodyElement, const std::string& directory);
  // The MJCF form: one <body> and its sub-bodies.
  ArticulatedSystem* addArticulatedSystem(const VorSimTinyXmlWrapper& body, const std::string& resourceDir,
                                          const mjcf::DefaultMap& defaults, const mjcf::MjcfAssets& assets,
                                          const mjcf::MjcfCompilerSetting& compiler, ArticulatedSystemOption option);
  // Replaces each child that names an object class (objectType COMPOUND, the
  // class name in `name`) by the class's content: a primitive class gives one
  // child with the class's shape, size and material at the child's pose; a
  // compound class gives its own (flattened) children, their poses composed
  // with the child's. An unknown class is the fatal message "Could not find the
  // object class NAME".
  void flattenCompoundClass(std::vector<Compound::CompoundObjectChild>& children, size_t depth = 0);
  // Steps 1 and 3-4 of every add-function: count the change, append the object
  // and give it its index.
  template <typename T>
  T* registerObject(T* object) {
    ++configurationNumber_;
    objects_.push_back(object);
    object->setIndexInWorld(objects_.size() - 1);
    return object;
  }
  // Appends an object whose add-function counted the change before
  // constructing it (a constructor that reads input can fail).
  template <typename T>
  T* appendObject(T* object) {
    objects_.push_back(object);
    object->setIndexInWorld(objects_.size() - 1);
    return object;
  }
  HeightMap* addHeightMapToWorld(HeightMap* heightMap, const std::string& material, size_t collisionGroup,
                                 size_t collisionMask);
  // Writes the per-geom items of a freshly added object's geom and adds the geom
  // to the space.
  void addCollisionObject(dxGeom* geom, size_t localIdx, const std::string& material, size_t collisionGroup,
                          size_t collisionMask);
  // The stages of a step that are the world's own work, in step order.
  // Broad and narrow phase: fills contactGeoms_ and numContacts_.
  void detectCollisions();
  // After geoms came or went or bits changed: the broad phase decides which
  // geoms can pair at all, and each robot splits its geoms into those placed
  // every step and those placed on demand.
  void refreshCollisionLayout();
  // Places the robots' on-demand geoms at the poses of the last step, for
  // everything that reads geom poses outside the step (rays, the space).
  void placeDeferredGeoms();
  // Per collision point: the filters, a Contact on each non-static side and one
  // problem with the material pair's numbers.
  void generateContacts();
  // Fills the problems of an object's contacts: block, objects, impact velocity.
  void contactProblemUpdate(Object* object);
  // Enters a freshly built robot: its index, and its geoms in the space with
  // object index, body index, group and mask.
  ArticulatedSystem* registerArticulatedSystem(ArticulatedSystem* system, size_t collisionGroup, size_t collisionMask);
  // Raises mu toward the static coefficient on contacts slower than the pair's
  // threshold at the start of the step.
  void applyStaticFriction();
  // Whether a self-collision between local bodies la and lb of an articulated
  // object already has as many points as the object keeps of one pair.
  bool selfCollisionPairIsFull(const Object& object, size_t la, size_t lb) const;
  template <typename W>
  W* registerWire(W* wire);

  static void nearCallback(void* data, dxGeom* o1, dxGeom* o2);

  dxSpace* collisionSpace_ = nullptr;
  std::vector<dContactGeom> contactGeoms_;
  // Unit normal and contact frame of each point of contactGeoms_.
  std::vector<Mat<3, 1>> contactNormals_;
  std::vector<Mat<3, 3>> contactFrames_;
  // The collision points' problems whose material's static friction can
  // change mu, and the number of collision points' problems.
  std::vector<uint32_t> staticBlendProblems_;
  size_t generatedProblems_ = 0;
  int numContacts_ = 0;
  Mat<3, 1> gravity_{0.0, 0.0, -9.81};
  contact::BisectionContactSolver solver_;
  std::vector<Object*> objects_;
  ContactProblemList contactProblems_;
  std::vector<std::unique_ptr<LengthConstraint>> wires_;
  MaterialManager materialManager_;
  double timeStep_ = 0.005;
  double worldTime_ = 0.0;
  std::string configFile_;
  int worldStep_ = 0;
  int configurationNumber_ = 0;
  std::unordered_map<std::string, XmlObjectClass> xmlObjectClasses_;
  dxGeom* rayGeom_ = nullptr;
  RayCollisionList rayContactList_;
  std::mutex worldMutex_;
  SweepAndPrune broadPhase_;
  std::vector<ArticulatedSystem*> robotsWithDeferredGeoms_;  // robots with geoms placed on demand
  bool deferredGeomsStale_ = false;                          // which have moved since placed
  contact::WarmStartCache warmStartCache_;
  size_t warmStartedProblems_ = 0;
  RayScene rayScene_;  // the snapshot of the open RayBatch
  int rayBatchDepth_ = 0;
  bool raySceneFresh_ = false;
};

}  // namespace vorsim

#endif  // VORSIM_WORLD_HPP
