#include "vorsim/World.hpp"

#include <cmath>
#include <limits>

#include "vorsim/Collision.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

namespace vorsim {

namespace {
inline Mat<3, 1> toMat(const Eigen::Vector3d& v) { return {v(0), v(1), v(2)}; }

// Whether a holds the same text as *b (b not null). Material names are short:
// a plain loop beats a call to the library's compare.
inline bool sameText(const std::string& a, const std::string* b) {
  if (&a == b) return true;
  const size_t n = a.size();
  if (n != b->size()) return false;
  const char* p = a.data();
  const char* q = b->data();
  for (size_t k = 0; k < n; ++k)
    if (p[k] != q[k]) return false;
  return true;
}
}  // namespace

World::World() { init(); }

void World::init() {
  dInitODE2(0);
  dAllocateODEDataForThread(dAllocateMaskAll);
  solver_.timeStep = timeStep_;
  gravity_ = {0.0, 0.0, -9.81};
  collisionSpace_ = dSweepAndPruneSpaceCreate(nullptr, dSAP_AXES_YXZ);
  rayGeom_ = attachGeomData(dCreateRay(collisionSpace_, 0));
  dSpaceRemove(collisionSpace_, rayGeom_);
  contactGeoms_.resize(1000);
  rayContactList_.resize(200);
}

World::~World() {
  wires_.clear();
  for (Object* object : objects_) {
    object->destroyCollisionBodies(collisionSpace_);
    delete object;
  }
  objects_.clear();
  destroyGeom(rayGeom_);
  dSpaceDestroy(collisionSpace_);
  dCloseODE();
}

// ------------------------------------------------------------------ settings --

void World::setTimeStep(double dt) {
  timeStep_ = dt;
  solver_.timeStep = dt;
  for (Object* object : objects_) object->updateTimeStep(dt);
}

void World::setERP(double erp, double erp2) {
  if (erp < 0) MSG_WARN("ERP should be positive");
  solver_.erp = erp;
  solver_.erp2 = erp2;
}

void World::setContactSolverParam(double alpha_init, double alpha_min, double alpha_decay, int maxIter,
                                  double threshold) {
  solver_.alpha_init = alpha_init;
  solver_.alpha_min = alpha_min;
  solver_.alpha_decay = alpha_decay;
  solver_.maxIter = maxIter;
  solver_.threshold = threshold;
}

void World::setWarmStart(bool enable) {
  solver_.warmStart = enable;
  warmStartCache_.clear();
  warmStartedProblems_ = 0;
}

void World::setWarmStartTolerance(double tolerance) {
  if (!(tolerance >= 0.0)) {
    MSG_FATAL("The warm start tolerance must be zero or positive, not " << tolerance);
    return;
  }
  warmStartCache_.setTolerance(tolerance);
}

void World::setDefaultMaterial(double friction, double restitution, double restThreshold) {
  materialManager_.setDefaultMaterialProperties(friction, restitution, restThreshold, friction, 0.001);
}

void World::setDefaultMaterial(double friction, double restitution, double restThreshold, double staticFriction,
                               double staticThreshold) {
  materialManager_.setDefaultMaterialProperties(friction, restitution, restThreshold, staticFriction, staticThreshold);
}

void World::setMaterialPairProp(const std::string& name1, const std::string& name2, double friction, double restitution,
                                double restThreshold) {
  materialManager_.setMaterialPairProp(name1, name2, friction, restitution, restThreshold, friction, 0.001);
}

void World::setMaterialPairProp(const std::string& name1, const std::string& name2, double friction, double restitution,
                                double restThreshold, double staticFriction, double staticThreshold) {
  materialManager_.setMaterialPairProp(name1, name2, friction, restitution, restThreshold, staticFriction,
                                       staticThreshold);
}

void World::updateMaterialProp(const MaterialManager& other) { materialManager_ = other; }

// ------------------------------------------------------------------ stepping --

void World::nearCallback(void* data, dxGeom* o1, dxGeom* o2) {
  auto* world = static_cast<World*>(data);
  const GeomData& d1 = geomData(o1);
  if (d1.ignoredGeoms.count(o2)) return;
  // A body never touches itself: two geoms of one body are not even tested
  // (a geom inside another is a degenerate case for the collision library).
  const GeomData& d2 = geomData(o2);
  if (d1.objectIndex == d2.objectIndex && d1.localIndex == d2.localIndex) return;
  auto& store = world->contactGeoms_;
  if (store.size() < size_t(world->numContacts_) + 500) store.resize(store.size() * 3);
  world->numContacts_ += dCollide(o1, o2, 500, &store[size_t(world->numContacts_)], sizeof(dContactGeom));
}

void World::integrate1() {
  contactProblems_.clear();
  for (Object* object : objects_) object->clearPerObjectContact();
  for (Object* object : objects_)
    if (object->getBodyType() == DYNAMIC) object->updateTimeStepIfNecessary(timeStep_);
  if (broadPhase_.needsRefresh()) refreshCollisionLayout();
  // Robots with geoms placed on demand stand in robotsWithDeferredGeoms_ in
  // the order of objects_.
  size_t r = 0;
  for (Object* object : objects_) {
    const bool onDemand = r < robotsWithDeferredGeoms_.size() && object == robotsWithDeferredGeoms_[r];
    r += onDemand ? 1 : 0;
    if (object->getBodyType() == STATIC) continue;
    if (onDemand) {
      static_cast<ArticulatedSystem*>(object)->updateCollisionInStep();
      deferredGeomsStale_ = true;
    } else {
      object->updateCollision();
    }
  }
  detectCollisions();
  contactProblems_.reserve(size_t(numContacts_) + 20 + wires_.size());
  generateContacts();
  for (Object* object : objects_) object->appendConstraints(contactProblems_);
  for (auto& wire : wires_) wire->update(contactProblems_);
  for (Object* object : objects_)
    if (object->getBodyType() != STATIC) object->preContactSolverUpdate1(gravity_, timeStep_);
}

void World::detectCollisions() {
  numContacts_ = 0;
  broadPhase_.collide(this, &World::nearCallback);
}

void World::refreshCollisionLayout() {
  broadPhase_.refresh();
  placeDeferredGeoms();
  robotsWithDeferredGeoms_.clear();
  for (Object* object : objects_) {
    auto* robot = dynamic_cast<ArticulatedSystem*>(object);
    if (robot != nullptr && robot->splitGeomPlacement() > 0) robotsWithDeferredGeoms_.push_back(robot);
  }
}

void World::placeDeferredGeoms() {
  if (!deferredGeomsStale_) return;
  for (const ArticulatedSystem* robot : robotsWithDeferredGeoms_) robot->placeDeferredGeoms();
  deferredGeomsStale_ = false;
}

bool World::selfCollisionPairIsFull(const Object& object, size_t la, size_t lb) const {
  if (object.getObjectType() != ARTICULATED_SYSTEM) return false;
  // The twin records of a self-collision stand next to each other.
  int found = 0;
  const auto& list = object.getContacts();
  for (size_t k = 0; k + 1 < list.size(); ++k) {
    if (list[k].pairObjectIndex == object.getIndexInWorld() &&
        ((list[k].localBodyIndex == la && list[k + 1].localBodyIndex == lb) ||
         (list[k].localBodyIndex == lb && list[k + 1].localBodyIndex == la))) {
      found = 1;
      break;
    }
  }
  return found >= object.getMaxSelfCollisionContacts();
}

namespace {
// Whether the static friction blend leaves a problem's mu as it is, bit for
// bit, whatever its velocity: with no positive threshold it does not run; with
// the static coefficient equal to the dynamic one, mu + x * (staticFriction -
// mu) is mu + x * 0, which is mu when mu is finite and not -0 and x finite.
// x = 1 - vt * inverse is finite whenever the blend runs: then vt lies in
// [0, threshold), so |vt * inverse| is at most |threshold * inverse|, checked
// finite here.
inline bool staticBlendKeepsMu(double mu, double staticFriction, double threshold, double inverse) {
  if (!(threshold > 0.0)) return true;
  return staticFriction == mu && std::isfinite(mu) && !std::signbit(mu) && std::isfinite(threshold * inverse);
}
}  // namespace

// Flattened: the record constructors and the vectors' appends are inlined
// into the loop, which writes both records of every point.
__attribute__((flatten)) void World::generateContacts() {
  // One Contact per non-static side and one problem per collision point.
  // Consecutive points mostly share their pair of material names: the pair's
  // properties are looked up again only when a name differs from the last.
  const std::string* lastMaterial1 = nullptr;
  const std::string* lastMaterial2 = nullptr;
  const MaterialPairProperties* material = nullptr;
  // Whether the pair's static friction can change mu (see applyStaticFriction).
  bool materialBlends = false;
  staticBlendProblems_.clear();
  // The unit normals and frames of all points first, in one pass of
  // independent points (packed lanes, the same bits as one at a time). The
  // buffers follow the size of the point store, so a steady scene allocates
  // nothing here.
  if (contactNormals_.size() != contactGeoms_.size()) {
    contactNormals_.resize(contactGeoms_.size());
    contactFrames_.resize(contactGeoms_.size());
  }
  if (numContacts_ > 0)
    Contact::unitNormalsAndFrames(contactGeoms_[0].normal, sizeof(dContactGeom), size_t(numContacts_),
                                  contactNormals_.data(), contactFrames_.data());
  // What a geom leads to (record, object, body, body type) does not change
  // during the loop, and the points of one geom pair come in a row: each side
  // is looked up again only when its geom differs from the last point's.
  struct Side {
    dxGeom* geom = nullptr;
    const GeomData* data = nullptr;
    Object* object = nullptr;
    size_t local = 0;
    BodyType type = STATIC;
  };
  auto resolve = [this](Side& side, dxGeom* geom) {
    if (geom == side.geom) return;
    side.geom = geom;
    side.data = &geomData(geom);
    side.object = objects_[side.data->objectIndex];
    side.local = side.data->localIndex;
    side.type = side.object->getBodyType(side.local);
  };
  Side side1, side2;
  // With the warm start on, the cache notes each point's frame (the frames
  // stay in place until the next step) and geoms, for its problem's key.
  contact::WarmStartCache::PointNote* notes =
      solver_.warmStart ? warmStartCache_.startPoints(size_t(numContacts_)) : nullptr;
  for (int i = 0; i < numContacts_; ++i) {
    const dContactGeom& g = contactGeoms_[size_t(i)];
    resolve(side1, g.g1);
    resolve(side2, g.g2);
    const GeomData& d1 = *side1.data;
    const GeomData& d2 = *side2.data;
    Object* A = side1.object;
    Object* B = side2.object;
    const size_t la = side1.local, lb = side2.local;
    const BodyType typeA = side1.type, typeB = side2.type;
    if (typeA != DYNAMIC && typeB != DYNAMIC) continue;
    // A body never touches itself; a pair of an object's own bodies keeps only
    // the first points of its set.
    if (A == B && (la == lb || selfCollisionPairIsFull(*A, la, lb))) continue;

    const Mat<3, 1>& n = contactNormals_[size_t(i)];
    const Mat<3, 3>& frame = contactFrames_[size_t(i)];
    const Mat<3, 1> pos{g.pos[0], g.pos[1], g.pos[2]};
    const size_t problemIndex = contactProblems_.size();

    // Each record is built in place, every field written once.
    if (typeA != STATIC) {
      auto& list = A->getContacts();
      const size_t pairIndex = B->getContacts().size() + (A == B ? 1 : 0);
      list.emplace_back(frame, pos, n, -g.depth, list.size(), d2.objectIndex, pairIndex, problemIndex, la, true, typeB,
                        g.g1, g.g2);
    }
    if (typeB != STATIC) {
      auto& list = B->getContacts();
      const size_t pairIndex = A->getContacts().size() - 1;
      list.emplace_back(frame, pos, n, -g.depth, list.size(), d1.objectIndex, pairIndex, problemIndex, lb, false, typeA,
                        g.g1, g.g2);
    }

    // The pair's properties depend on the names' text only. Points of one
    // geom pair come in a row, so the strings last compared are remembered
    // by address whether or not they were the ones looked up.
    if (material == nullptr || !sameText(d1.material, lastMaterial1) || !sameText(d2.material, lastMaterial2)) {
      material = &materialManager_.getMaterialPairProp(d1.material, d2.material);
      materialBlends = !staticBlendKeepsMu(material->c_f, material->c_static_f, material->v_static, material->v_static_inv);
    }
    lastMaterial1 = &d1.material;
    lastMaterial2 = &d2.material;
    contactProblems_.emplace_back(*material, pos[0], pos[1], pos[2], -g.depth);
    if (materialBlends) staticBlendProblems_.push_back(uint32_t(problemIndex));
    if (notes != nullptr) notes[problemIndex] = contact::WarmStartCache::PointNote{&frame, g.g1, g.g2};
  }
  generatedProblems_ = contactProblems_.size();
  warmStartCache_.endPoints(notes != nullptr ? contactProblems_.size() : 0);
}

void World::contactProblemUpdate(Object* object) {
  auto& list = object->getContacts();
  const bool dynamicObject = object->getBodyType() == DYNAMIC;
  // Every object of the world is a SingleBodyObject except robots.
  const bool singleBody = object->getObjectType() != ARTICULATED_SYSTEM;
  for (size_t i = 0; i < list.size(); ++i) {
    Contact& c = list[i];
    contact::Single3DContactProblem& P = contactProblems_[c.contactProblemIndex];
    c.impulse = &P.impulse;
    if (c.skip || !dynamicObject) continue;
    // The A side of a dynamic pair does the work for both.
    if (c.pairObjectBodyType == DYNAMIC && !c.isObjectA) continue;

    Object* pair = objects_[c.pairObjectIndex];
    const size_t j = c.pairContactIndex;
    P.tauStar.setZero();

    if (c.pairObjectBodyType == DYNAMIC) {
      P.impactVel = object->getImpactVel(i) - pair->getImpactVel(j);
      P.objectA = object;
      P.singleBodyA = singleBody;
      P.localIndexA = i;
      if (c.isSelfCollision) {
        P.delassus = c.delassus;
      } else {
        const Mat<3, 3>& other = pair->getContacts()[j].delassus;
        for (size_t k = 0; k < 9; ++k) P.delassus[k] = c.delassus[k] + other[k];
        P.objectB = pair;
        P.singleBodyB = pair->getObjectType() != ARTICULATED_SYSTEM;
        P.localIndexB = j;
      }
    } else {
      // A static or kinematic partner is not an object of the problem; a
      // kinematic one enters as the constant velocity tauStar.
      P.delassus = c.delassus;
      const bool kinematic = c.pairObjectBodyType == KINEMATIC;
      if (c.isObjectA) {
        P.objectA = object;
        P.singleBodyA = singleBody;
        P.localIndexA = i;
        P.impactVel = object->getImpactVel(i);
        if (kinematic) {
          pair->subContactPointVel(j, P.tauStar);
          P.impactVel -= pair->getImpactVel(j);
        }
      } else {
        P.objectB = object;
        P.singleBodyB = singleBody;
        P.localIndexB = i;
        P.impactVel = -object->getImpactVel(i);
        if (kinematic) {
          pair->addContactPointVel(j, P.tauStar);
          P.impactVel += pair->getImpactVel(j);
        }
      }
    }
  }
}

void World::integrate2() {
  worldStep_ += 1;
  worldTime_ += timeStep_;
  for (Object* object : objects_)
    if (object->getBodyType() != STATIC) object->preContactSolverUpdate2(gravity_, timeStep_, contactProblems_);
  for (Object* object : objects_) contactProblemUpdate(object);
  applyStaticFriction();
  warmStartedProblems_ = 0;
  if (!contactProblems_.empty()) {
    for (auto& P : contactProblems_) P.impulse.setZero();
    if (solver_.warmStart)
      warmStartedProblems_ = warmStartCache_.seed(objects_, contactProblems_, configurationNumber_, timeStep_);
    solver_.solve(contactProblems_);
  }
  if (solver_.warmStart) warmStartCache_.store(contactProblems_);
  // Single bodies go through integrateBodies four at a time (in packed lanes);
  // any other object first finishes the bodies before it, so the order stays.
  SingleBodyObject* bodies[4];
  size_t numBodies = 0;
  for (Object* object : objects_) {
    if (object->getBodyType() == STATIC) continue;
    if (isSingleBody(object->getObjectType())) {
      bodies[numBodies++] = static_cast<SingleBodyObject*>(object);
      if (numBodies == 4) SingleBodyObject::integrateBodies(bodies, 4, timeStep_, 4), numBodies = 0;
      continue;
    }
    if (numBodies > 0) SingleBodyObject::integrateBodies(bodies, numBodies, timeStep_, 4), numBodies = 0;
    object->integrate(timeStep_, *this);
  }
  if (numBodies > 0) SingleBodyObject::integrateBodies(bodies, numBodies, timeStep_, 4);
}

void World::applyStaticFriction() {
  // Below the threshold velocity the friction coefficient blends linearly
  // toward the static one. 1/mu keeps the dynamic value. Problems are
  // independent: each reads its own numbers and the objects' velocities at the
  // start of the step, and writes its own mu.
  auto blend = [](contact::Single3DContactProblem& P) {
    if (P.rank > 3) return;
    // A problem whose blend keeps mu whatever the speed (the tangential speed
    // is a square root: zero or more, or NaN) need not read its velocity.
    if (staticBlendKeepsMu(P.mu, P.staticFriction, P.staticFrictionThreshold, P.inverseStaticThreshold)) return;
    Mat<3, 1> v = P.tauStar;
    if (P.singleBodyA)
      static_cast<SingleBodyObject*>(P.objectA)->SingleBodyObject::addContactPointVel2(P.localIndexA, v);
    else if (P.objectA)
      P.objectA->addContactPointVel2(P.localIndexA, v);
    if (P.singleBodyB)
      static_cast<SingleBodyObject*>(P.objectB)->SingleBodyObject::subContactPointVel2(P.localIndexB, v);
    else if (P.objectB)
      P.objectB->subContactPointVel2(P.localIndexB, v);
    const double vt = std::sqrt(v[0] * v[0] + v[1] * v[1]);
    if (P.staticFrictionThreshold > vt) P.mu = P.mu + (1.0 - vt * P.inverseStaticThreshold) * (P.staticFriction - P.mu);
  };
  // Of the collision points only those whose material can change mu are
  // listed (their numbers come unchanged from the material); the problems
  // added after them (wires, robots' limits and pins) are all looked at.
  for (const uint32_t i : staticBlendProblems_) blend(contactProblems_[i]);
  for (size_t i = generatedProblems_; i < contactProblems_.size(); ++i) blend(contactProblems_[i]);
}

// ------------------------------------------------------------------ registry --

void World::addCollisionObject(dxGeom* geom, size_t localIdx, const std::string& material, size_t collisionGroup,
                               size_t collisionMask) {
  GeomData& data = geomData(geom);
  data.material = material;
  setCollisionBits(geom, collisionGroup, collisionMask);
  data.localIndex = localIdx;
  data.objectIndex = objects_.size() - 1;
  dSpaceAdd(collisionSpace_, geom);
  broadPhase_.add(geom);
}

Sphere* World::addSphere(double radius, double mass, const std::string& material, size_t collisionGroup,
                         size_t collisionMask) {
  auto* object = registerObject(new Sphere(radius, mass));
  addCollisionObject(object->getCollisionObject(), 0, material, collisionGroup, collisionMask);
  return object;
}

Box* World::addBox(double xLength, double yLength, double zLength, double mass, const std::string& material,
                   size_t collisionGroup, size_t collisionMask) {
  auto* object = registerObject(new Box(xLength, yLength, zLength, mass));
  addCollisionObject(object->getCollisionObject(), 0, material, collisionGroup, collisionMask);
  return object;
}

Cylinder* World::addCylinder(double radius, double height, double mass, const std::string& material,
                             size_t collisionGroup, size_t collisionMask) {
  auto* object = registerObject(new Cylinder(radius, height, mass));
  addCollisionObject(object->getCollisionObject(), 0, material, collisionGroup, collisionMask);
  return object;
}

Capsule* World::addCapsule(double radius, double height, double mass, const std::string& material,
                           size_t collisionGroup, size_t collisionMask) {
  auto* object = registerObject(new Capsule(radius, height, mass));
  addCollisionObject(object->getCollisionObject(), 0, material, collisionGroup, collisionMask);
  return object;
}

Ground* World::addGround(double height, const std::string& material, size_t collisionMask) {
  auto* object = registerObject(new Ground(height));
  object->setAppearance("grid");
  addCollisionObject(object->getCollisionObject(), 0, material, 0x80000000u, collisionMask);
  return object;
}

// The height map and compound constructors read input and can fail with a
// fatal message: the change is counted first, as for every add-function.
HeightMap* World::addHeightMapToWorld(HeightMap* heightMap, const std::string& material, size_t collisionGroup,
                                      size_t collisionMask) {
  appendObject(heightMap);
  addCollisionObject(heightMap->getCollisionObject(), 0, material, collisionGroup, collisionMask);
  return heightMap;
}

HeightMap* World::addHeightMap(size_t xSamples, size_t ySamples, double xSize, double ySize, double centerX,
                               double centerY, const std::vector<double>& heights, const std::string& material,
                               size_t collisionGroup, size_t collisionMask) {
  ++configurationNumber_;
  return addHeightMapToWorld(new HeightMap(xSamples, ySamples, xSize, ySize, centerX, centerY, heights), material,
                             collisionGroup, collisionMask);
}

HeightMap* World::addHeightMap(double centerX, double centerY, const TerrainProperties& terrainProperties,
                               const std::string& material, size_t collisionGroup, size_t collisionMask) {
  ++configurationNumber_;
  return addHeightMapToWorld(new HeightMap(centerX, centerY, terrainProperties), material, collisionGroup,
                             collisionMask);
}

HeightMap* World::addHeightMap(const std::string& file, double centerX, double centerY, const std::string& material,
                               size_t collisionGroup, size_t collisionMask) {
  ++configurationNumber_;
  return addHeightMapToWorld(new HeightMap(centerX, centerY, file), material, collisionGroup, collisionMask);
}

HeightMap* World::addHeightMap(const std::string& pngFile, double centerX, double centerY, double xSize, double ySize,
                               double heightScale, double heightOffset, const std::string& material,
                               size_t collisionGroup, size_t collisionMask) {
  ++configurationNumber_;
  return addHeightMapToWorld(new HeightMap(centerX, centerY, pngFile, xSize, ySize, heightScale, heightOffset),
                             material, collisionGroup, collisionMask);
}

HeightMap* World::addHeightMap(const HeightMap* heightMap, size_t collisionGroup, size_t collisionMask) {
  ++configurationNumber_;
  const std::string material = geomData(heightMap->getCollisionObject()).material;
  return addHeightMapToWorld(HeightMap::copyOf(*heightMap), material, collisionGroup, collisionMask);
}

Compound* World::addCompound(const std::vector<Compound::CompoundObjectChild>& children, double mass,
                             const Mat<3, 1>& com, const Mat<3, 3>& inertia, size_t collisionGroup,
                             size_t collisionMask) {
  ++configurationNumber_;
  auto* object = appendObject(new Compound(children, mass, com, inertia));
  for (size_t i = 0; i < object->geoms.size(); ++i)
    if (object->geoms[i] != nullptr)
      addCollisionObject(object->geoms[i], i, object->children[i].material, collisionGroup, collisionMask);
  return object;
}

Mesh* World::addMesh(const std::string& objFile, double mass, const Mat<3, 3>& inertia, const Mat<3, 1>& com,
                     double scale, const std::string& material, size_t collisionGroup, size_t collisionMask) {
  auto* object = registerObject(new Mesh(objFile, nullptr, mass, inertia, com, scale));
  addCollisionObject(object->getCollisionObject(), 0, material, collisionGroup, collisionMask);
  return object;
}

Mesh* World::addMesh(const std::string& objFile, double mass, double scale, const std::string& material,
                     size_t collisionGroup, size_t collisionMask) {
  std::vector<float> vertices;
  std::vector<uint32_t> indices;
  Mesh::loadObj(objFile, vertices, indices, scale);
  Mat<3, 3> inertia;
  Mat<3, 1> com;
  if (Mesh::massPropertiesOfClosedMesh(vertices, indices, mass, inertia, com) == 0.0) {
    MSG_WARN("The mesh " << objFile << " encloses no volume: it gets the inertia of its bounding box");
    Mat<3, 1> lo{0.0, 0.0, 0.0}, hi{0.0, 0.0, 0.0};
    for (size_t i = 0; i + 2 < vertices.size(); i += 3)
      for (size_t d = 0; d < 3; ++d) {
        lo[d] = i == 0 ? vertices[d] : std::min(lo[d], double(vertices[i + d]));
        hi[d] = i == 0 ? vertices[d] : std::max(hi[d], double(vertices[i + d]));
      }
    const double x = hi[0] - lo[0], y = hi[1] - lo[1], z = hi[2] - lo[2];
    inertia.setZero();
    inertia(0, 0) = mass / 12.0 * (y * y + z * z);
    inertia(1, 1) = mass / 12.0 * (x * x + z * z);
    inertia(2, 2) = mass / 12.0 * (x * x + y * y);
    com = {(lo[0] + hi[0]) * 0.5, (lo[1] + hi[1]) * 0.5, (lo[2] + hi[2]) * 0.5};
  }
  auto* object = registerObject(new Mesh(vertices, indices, nullptr, mass, inertia, com, 1.0));
  object->setMeshSource(objFile, scale);
  addCollisionObject(object->getCollisionObject(), 0, material, collisionGroup, collisionMask);
  return object;
}

Mesh* World::addMesh(const Mesh* source, const std::string& material, size_t collisionGroup, size_t collisionMask) {
  auto* object =
      registerObject(new Mesh(source->getMeshVertices(), source->getMeshIndices(), nullptr, source->getMass(),
                              source->getInertiaMatrix_B(), source->getBodyComOffset(), 1.0));
  object->setMeshSource(source->getMeshFileName(), source->getMeshScale());
  addCollisionObject(object->getCollisionObject(), 0, material, collisionGroup, collisionMask);
  return object;
}

ArticulatedSystem* World::addArticulatedSystem(const std::string& urdfPathOrText, const std::string& resourceDir,
                                               const std::vector<std::string>& jointOrder, size_t collisionGroup,
                                               size_t collisionMask, ArticulatedSystemOption option) {
  ++configurationNumber_;
  auto* system = new ArticulatedSystem(urdfPathOrText, resourceDir, jointOrder, option);
  return registerArticulatedSystem(system, collisionGroup, collisionMask);
}

ArticulatedSystem* World::addArticulatedSystem(const Child& root, const std::string& resourceDir, size_t collisionGroup,
                                               size_t collisionMask, ArticulatedSystemOption option) {
  ++configurationNumber_;
  auto* system = new ArticulatedSystem(root, resourceDir, option);
  return registerArticulatedSystem(system, collisionGroup, collisionMask);
}

ArticulatedSystem* World::registerArticulatedSystem(ArticulatedSystem* system, size_t collisionGroup,
                                                    size_t collisionMask) {
  objects_.push_back(system);
  system->setIndexInWorld(objects_.size() - 1);
  for (const CollisionDefinition& d : system->getCollisionBodies()) {
    GeomData& data = geomData(d.colObj);
    data.objectIndex = objects_.size() - 1;
    data.localIndex = d.localIdx;
    if (getCategoryBits(d.colObj) == 1u && getCollideBits(d.colObj) == 0xFFFFFFFFu)
      setCollisionBits(d.colObj, collisionGroup, collisionMask);
    dSpaceAdd(collisionSpace_, d.colObj);
    broadPhase_.add(d.colObj);
  }
  // The robot takes the world's time step at once: inverse dynamics turns
  // contact impulses into forces with it.
  system->updateTimeStep(timeStep_);
  system->updateCollision();
  return system;
}

template <typename W>
W* World::registerWire(W* wire) {
  wires_.emplace_back(wire);
  wire->setStretchType(LengthConstraint::STRETCH_ONLY);
  return wire;
}

StiffLengthConstraint* World::addStiffWire(Object* object1, size_t localIdx1, const Eigen::Vector3d& pos1,
                                           Object* object2, size_t localIdx2, const Eigen::Vector3d& pos2,
                                           double length) {
  ++configurationNumber_;
  return registerWire(
      new StiffLengthConstraint(object1, localIdx1, toMat(pos1), object2, localIdx2, toMat(pos2), length));
}

CompliantLengthConstraint* World::addCompliantWire(Object* object1, int localIdx1, const Eigen::Vector3d& pos1,
                                                   Object* object2, int localIdx2, const Eigen::Vector3d& pos2,
                                                   double length, double stiffness) {
  ++configurationNumber_;
  return registerWire(new CompliantLengthConstraint(object1, localIdx1, toMat(pos1), object2, localIdx2, toMat(pos2),
                                                    length, stiffness));
}

CustomLengthConstraint* World::addCustomWire(Object* object1, size_t localIdx1, const Eigen::Vector3d& pos1,
                                             Object* object2, size_t localIdx2, const Eigen::Vector3d& pos2,
                                             double length) {
  ++configurationNumber_;
  return registerWire(
      new CustomLengthConstraint(object1, localIdx1, toMat(pos1), object2, localIdx2, toMat(pos2), length));
}

Object* World::getObject(const std::string& name) {
  for (Object* object : objects_)
    if (object->getName() == name) return object;
  return nullptr;
}

LengthConstraint* World::getWire(const std::string& name) {
  for (auto& wire : wires_)
    if (wire->getName() == name) return wire.get();
  return nullptr;
}

Constraints* World::getConstraint(const std::string& name) { return getWire(name); }

void World::removeObject(Object* object) {
  ++configurationNumber_;
  size_t k = 0;
  while (k < objects_.size() && objects_[k] != object) ++k;
  if (k == objects_.size()) {
    MSG_INFO("the object is already deleted");
    return;
  }

  // A wire moved into a freed slot is not looked at again.
  for (size_t i = 0; i < wires_.size(); ++i) {
    if (wires_[i]->getBody1() == object || wires_[i]->getBody2() == object) {
      if (i + 1 != wires_.size()) std::swap(wires_[i], wires_.back());
      wires_.pop_back();
    }
  }

  broadPhase_.removeObject(k);
  // The list is made afresh, in the new object order, at the next step.
  placeDeferredGeoms();
  robotsWithDeferredGeoms_.clear();
  object->destroyCollisionBodies(collisionSpace_);
  delete object;

  const size_t last = objects_.size() - 1;
  if (k != last) {
    Object* moved = objects_[last];
    objects_[k] = moved;
    moved->setGeomObjectIndex(k);
    moved->setIndexInWorld(k);
  }
  objects_.pop_back();
}

void World::removeObject(LengthConstraint* wire) {
  ++configurationNumber_;
  for (size_t i = 0; i < wires_.size(); ++i) {
    if (wires_[i].get() == wire) {
      if (i + 1 != wires_.size()) std::swap(wires_[i], wires_.back());
      wires_.pop_back();
      return;
    }
  }
}

// ---------------------------------------------------------------------- rays --

const RayCollisionList& World::rayTest(const Eigen::Vector3d& start, const Eigen::Vector3d& direction, double length,
                                       bool closestOnly, size_t objectIndex, size_t localIndex, size_t collisionMask) {
  // The collision library normalises the direction and stops the process on
  // one it cannot normalise (zero, or not finite, as a lidar with one pitch
  // sample makes): such a ray hits nothing.
  const double directionNorm = direction.squaredNorm();
  if (!(directionNorm > 0.0 && directionNorm < std::numeric_limits<double>::infinity())) {
    rayContactList_.size = 0;
    return rayContactList_;
  }
  placeDeferredGeoms();
  auto& items = rayContactList_.items;
  // Both routes below cast the same unit direction, so that they agree to the
  // last bit.
  RayQuery query;
  const double inverseNorm = 1.0 / std::sqrt(directionNorm);
  for (int k = 0; k < 3; ++k) {
    query.start[k] = start(k);
    query.dir[k] = direction(k) * inverseNorm;
  }
  query.length = length;
  query.collideBits = uint32_t(collisionMask & 0xFFFFFFFFu);
  query.objectIndex = objectIndex;
  query.localIndex = localIndex;
  query.rayGeom = rayGeom_;
  if (closestOnly && rayBatchDepth_ > 0) {
    if (!raySceneFresh_) {
      rayScene_.build(collisionSpace_);
      raySceneFresh_ = true;
    }
    RayCollisionItem& item = items[0];
    if (!rayScene_.closest(query, item.rayContact)) {
      rayContactList_.size = 0;
      return rayContactList_;
    }
    item.object = objects_[geomData(item.rayContact.g1).objectIndex];
    item.position = {item.rayContact.pos[0], item.rayContact.pos[1], item.rayContact.pos[2]};
    rayContactList_.size = 1;
    return rayContactList_;
  }

  setCollisionBits(rayGeom_, 0xFFFFFFFFu, collisionMask);
  GeomData& rayData = geomData(rayGeom_);
  rayData.objectIndex = objectIndex;
  rayData.localIndex = localIndex;
  dGeomRaySetLength(rayGeom_, length);
  dGeomRaySet(rayGeom_, start(0), start(1), start(2), query.dir[0], query.dir[1], query.dir[2]);
  // The ray is outside the space, so nothing else refreshes its bounding box.
  dReal aabb[6];
  dGeomGetAABB(rayGeom_, aabb);

  const int n =
      rayTestSpace(collisionSpace_, query, int(items.size()), &items[0].rayContact, int(sizeof(RayCollisionItem)));
  rayContactList_.size = size_t(n);

  if (n == 0 || !closestOnly) {
    for (int i = 0; i < n; ++i) {
      RayCollisionItem& item = items[size_t(i)];
      item.object = objects_[geomData(item.rayContact.g1).objectIndex];
      item.position = {item.rayContact.pos[0], item.rayContact.pos[1], item.rayContact.pos[2]};
    }
    return rayContactList_;
  }

  double best = std::numeric_limits<double>::max();
  size_t bestIndex = 0;
  for (int i = 0; i < n; ++i) {
    const dReal* p = items[size_t(i)].rayContact.pos;
    const double d = (p[0] - start(0)) * (p[0] - start(0)) + (p[1] - start(1)) * (p[1] - start(1)) +
                     (p[2] - start(2)) * (p[2] - start(2));
    if (d < best) {
      best = d;
      bestIndex = size_t(i);
    }
  }
  const dContactGeom& hit = items[bestIndex].rayContact;
  items[0].object = objects_[geomData(hit.g1).objectIndex];
  items[0].position = {hit.pos[0], hit.pos[1], hit.pos[2]};
  rayContactList_.size = 1;
  return rayContactList_;
}

}  // namespace vorsim
