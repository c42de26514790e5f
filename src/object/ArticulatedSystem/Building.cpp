// Building a system: a description becomes flat tables. Links on fixed joints
// are merged into their movable ancestor (they live on as frames), bodies are
// numbered depth first, every body-, gc- and gv-indexed table is filled, the
// collision geoms are made, and the Child tree is thrown away.
#include <iostream>

#include "urdfLoader2.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/Path.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/sensors/Sensor.hpp"

namespace vorsim {

void ArticulatedSystem::init() {
  Child& root = child[0];
  checkTree(root);
  appendRootFrame(root);  // frame 0
  root.consumeFixedBodies(frames);

  nbody = 1;
  for (const Child& c : root.child) nbody += c.numberOfBodiesFromHere();
  dof = root.numberOfDOFFromHere();
  gcDim = root.numberOfGCFromHere();
  sizeTables();

  root.processJointRef();
  parent[0] = kNone;
  registerSensors(root);
  fillRootBody(root);
  indexBodies(root);
  computeCompositeMass();
  computeDofParent();
  resolveFrameParents();
  placeFixedBase(root);

  root.initCollisionBodies(collisionDefinitions, visColObj, meshData, meshVertices, meshIndices, resourceDir);
  root.initVisuals(visObj);
  if (option_.ignoreParentCollision) ignoreCollisionWithMassiveAncestor();
  setDefaultCoordinates();
  child.clear();

  classifyJointShapes();
  updateKinematics();
  initializeConstraints();
  sizeDynamicsTables();
  warnAboutMasslessSubtrees();
}

// ------------------------------------------------------------ constructors --

ArticulatedSystem::ArticulatedSystem(const std::string& filePathOrXml, const std::string& resPath,
                                     const std::vector<std::string>& jointOrder, ArticulatedSystemOption option)
    : option_(option) {
  const bool isText = filePathOrXml.find('<') != std::string::npos;
  if (isText) {
    if (resPath.empty()) MSG_WARN("resDir is not specified.");
    urdfString = filePathOrXml;
    resourceDir = resPath;
    urdf::LoadFromURDF2(*this, filePathOrXml, jointOrder, false);
  } else {
    setRobotFile(filePathOrXml, resPath);
    urdf::LoadFromURDF2(*this, robotFilePath, jointOrder, true);
  }
  initOrRelease();
}

ArticulatedSystem::ArticulatedSystem(const std::string& filePath, const std::string& urdfText,
                                     const std::string& resPath, const std::vector<std::string>& jointOrder,
                                     ArticulatedSystemOption option)
    : option_(option) {
  if (!jointOrder.empty()) MSG_WARN("Using manually specified joint order");
  setRobotFile(filePath, resPath);
  urdfString = urdfText;
  urdf::LoadFromURDF2(*this, urdfText, jointOrder, false);
  initOrRelease();
}

ArticulatedSystem::ArticulatedSystem(const Child& root, const std::string& resPath, ArticulatedSystemOption option)
    : option_(option) {
  child.push_back(root);
  // A fixed base stands where its joint puts it, as it does from a file.
  baseJointPos = root.pos;
  baseJointRot = root.rot;
  if (resPath.empty()) MSG_WARN("resDir is not specified.");
  resourceDir = resPath;
  initOrRelease();
}

ArticulatedSystem::~ArticulatedSystem() { destroyCollisionBodies(nullptr); }

void ArticulatedSystem::initOrRelease() {
  // A fatal message whose callback throws leaves no destructor to run: the
  // geoms made so far must not outlive the half-built system.
  try {
    if (child.empty()) return;  // the loader failed under a returning callback
    init();
  } catch (...) {
    destroyCollisionBodies(nullptr);
    throw;
  }
}

void ArticulatedSystem::setRobotFile(const std::string& filePath, const std::string& resPath) {
  const Path path(filePath);
  robotFilePath = path.getString();
  resourceDir = resPath.empty() ? path.getDirectory().getString() : resPath;
  robotFileName = path.getFileName();
  robotTopDir = path.getTopDirectory().getString();
  if (!path.fileExists()) {
    MSG_FATAL(filePath << " does not exist");
    return;
  }
  const std::string extension = path.getFileExtension();
  if (extension != "xml" && extension != "urdf") MSG_FATAL(filePath << ": unsupported file type");
}

// ------------------------------------------------------- merging fixed links --

namespace {

// p := pos + R p, R := R rot (third column the cross product of the first two).
template <typename T>
void carryIntoParent(const Child& link, T& item) {
  Mat<3, 1> p;
  matvecmul(link.rot, item.offset, p);
  for (size_t k = 0; k < 3; ++k) item.offset[k] = link.pos[k] + p[k];
  const Mat<3, 3> r = item.rot;
  rotmatmul(link.rot, r, item.rot);
}

// Point-mass term of mass m at r, added to an inertia.
void addPointMass(double m, const Mat<3, 1>& r, Mat<3, 3>& inertia) {
  inertia(0, 0) += m * (r[1] * r[1] + r[2] * r[2]);
  inertia(1, 1) += m * (r[0] * r[0] + r[2] * r[2]);
  inertia(2, 2) += m * (r[0] * r[0] + r[1] * r[1]);
  const double xy = -m * r[0] * r[1], xz = -m * r[0] * r[2], yz = -m * r[1] * r[2];
  inertia(0, 1) += xy;
  inertia(1, 0) += xy;
  inertia(0, 2) += xz;
  inertia(2, 0) += xz;
  inertia(1, 2) += yz;
  inertia(2, 1) += yz;
}

}  // namespace

void Child::consumeFixedBodies(std::vector<CoordinateFrame>& frames) {
  // Flatten: every fixed descendant hangs directly from this body, and every
  // movable child found below a fixed link becomes this body's child. Each entry
  // is copied before appending, since appending may move the vector.
  size_t start = 0;
  while (true) {
    const size_t n = fixedBodies.size();
    bool moved = false;
    for (size_t i = start; i < n; ++i) {
      Child F = fixedBodies[i];
      for (Child& G : F.fixedBodies) {
        changeParent(F, G);
        fixedBodies.push_back(G);
        moved = true;
      }
      fixedBodies[i].fixedBodies.clear();
      for (Child& G : F.child) {
        changeParent(F, G);
        child.push_back(G);
        moved = true;
      }
      fixedBodies[i].child.clear();
    }
    if (!moved) break;
    start = n;
  }

  // Frames of the movable children.
  double M = mass;
  Mat<3, 1> S{mass * com[0], mass * com[1], mass * com[2]};
  for (const Child& C : child) {
    if (C.name.empty()) MSG_FATAL("All joints must have a name");
    CoordinateFrame f;
    f.name = C.name;
    f.parentName = C.bodyName;
    f.bodyName = C.bodyName;
    f.isMovableJoint = true;
    f.jointType = C.type;
    frames.push_back(f);
  }

  // Each fixed link: its frame, its mass about its own centre, its visuals,
  // collision bodies and sensors. F.com is changed in place: the combination
  // below reads it.
  for (Child& F : fixedBodies) {
    CoordinateFrame f;
    f.parentName = bodyName;
    f.bodyName = F.bodyName;
    f.name = F.name;
    f.position = F.pos;
    f.orientation = F.rot;
    f.jointType = F.type;
    f.isMovableJoint = false;
    frames.push_back(f);

    Mat<3, 1> c;
    matvecmul(F.rot, F.com, c);
    for (size_t k = 0; k < 3; ++k) F.com[k] = F.pos[k] + c[k];
    for (size_t k = 0; k < 3; ++k) S[k] += F.mass * F.com[k];
    M += F.mass;

    Mat<3, 3> rotated;
    similarityTransform(F.rot, F.inertia, rotated);
    inertia += rotated;

    for (VisObject& v : F.visuals) {
      carryIntoParent(F, v);
      visuals.push_back(v);
    }
    for (CollisionBody& b : F.collisionBodies) {
      carryIntoParent(F, b);
      collisionBodies.push_back(b);
    }
    for (auto& sensor : F.sensors) {
      Mat<3, 1> p;
      matvecmul(F.rot, sensor->getPositionInBody(), p);
      for (size_t k = 0; k < 3; ++k) p[k] += F.pos[k];
      Mat<3, 3> r;
      rotmatmul(F.rot, sensor->getOrientationInBody(), r);
      sensor->setPoseInBody(p, r);
      CoordinateFrame s;
      s.parentName = bodyName;
      s.name = sensor->getName();
      s.position = p;
      s.orientation = r;
      s.jointType = FIXED;
      s.isMovableJoint = false;
      sensor->setFrameIdx(frames.size());
      frames.push_back(s);
    }
    sensors.insert(sensors.end(), F.sensors.begin(), F.sensors.end());
  }

  // Combination about the merged centre of mass.
  Mat<3, 1> c{0.0, 0.0, 0.0};
  if (M != 0.0)
    for (size_t k = 0; k < 3; ++k) c[k] = S[k] / M;
  addInertia(mass, Mat<3, 1>{com[0] - c[0], com[1] - c[1], com[2] - c[2]}, inertia);
  for (const Child& F : fixedBodies)
    addPointMass(F.mass, Mat<3, 1>{F.com[0] - c[0], F.com[1] - c[1], F.com[2] - c[2]}, inertia);
  com = c;
  mass = M;
  fixedBodies.clear();

  for (Child& C : child) C.consumeFixedBodies(frames);
}

// ------------------------------------------------------------------- geoms --

namespace {

// A mesh name as the loaders keep it, relative to the resource directory. A
// leading "package://" stands for that directory; an absolute name is used as
// it is.
std::string resolveMeshFile(const std::string& resourceDir, const std::string& meshFile) {
  std::string name = meshFile;
  const std::string package = "package://";
  if (name.compare(0, package.size(), package) == 0) name = name.substr(package.size());
  Path::replaceAntiSeparatorWithSeparator(name);
  if (resourceDir.empty() || (!name.empty() && name[0] == Path::separator()[0])) return name;
  return (Path(resourceDir, true) + Path(name, true)).getString();
}

dGeomID createPrimitiveGeom(const CollisionBody& b) {
  const Mat<4, 1>& p = b.shapeParam;
  switch (b.shape) {
    case Shape::Box:
      return dCreateBox(nullptr, p[0], p[1], p[2]);
    case Shape::Cylinder:
      return dCreateCylinder(nullptr, p[0], p[1]);
    case Shape::Sphere:
      return dCreateSphere(nullptr, p[0]);
    case Shape::Capsule:
      return dCreateCapsule(nullptr, p[0], p[1]);
    default:
      return nullptr;
  }
}

}  // namespace

void Child::initCollisionBodies(std::vector<CollisionDefinition>& definitions, std::vector<VisObject>& visColObj,
                                std::vector<dTriMeshDataID>& meshData, std::vector<std::vector<float>>& meshVertices,
                                std::vector<std::vector<uint32_t>>& meshIndices, const std::string& resourceDir) {
  for (const CollisionBody& B : collisionBodies) {
    dGeomID geom = nullptr;
    if (B.shape == Shape::Mesh) {
      const size_t dot = B.meshFile.rfind('.');
      if (dot == std::string::npos || B.meshFile.substr(dot + 1) != "obj") {
        MSG_FATAL("Mesh collision bodies must be in an obj format");
        continue;
      }
      meshVertices.emplace_back();
      meshIndices.emplace_back();
      std::vector<float>& vertices = meshVertices.back();
      std::vector<uint32_t>& indices = meshIndices.back();
      Mesh::loadObj(resolveMeshFile(resourceDir, B.meshFile), vertices, indices, 1.0);
      if (vertices.size() % 3 != 0) {
        MSG_FATAL("The number of verticies of the mesh " << B.meshFile << " is not divisible by 3");
        continue;
      }
      for (size_t i = 0; i < vertices.size(); i += 3)
        for (size_t d = 0; d < 3; ++d) vertices[i + d] *= static_cast<float>(B.scale[d]);
      dTriMeshDataID data;
      geom = createTriMeshGeom(nullptr, vertices, indices, data);
      meshData.push_back(data);
    } else {
      dGeomID primitive = createPrimitiveGeom(B);
      if (primitive == nullptr) {
        MSG_FATAL("Collision body " << B.name << " has a shape that cannot collide");
        continue;
      }
      geom = attachGeomData(primitive);
    }
    GeomData& data = geomData(geom);
    data.material = B.material;
    data.localIndex = bodyIdx;
    setCollisionBits(geom, B.collisionGroup, B.collisionMask);
    definitions.emplace_back(B.rot, B.offset, bodyIdx, geom, B.name);
  }

  const Mat<4, 1> gray{0.7, 0.7, 0.7, 1.0};
  for (const CollisionBody& B : collisionBodies) {
    visColObj.emplace_back(B.shape, B.shapeParam, B.offset, B.rot, gray, B.scale, B.meshFile, B.name, B.visMaterial);
    visColObj.back().localIdx = bodyIdx;
  }

  for (Child& c : child)
    c.initCollisionBodies(definitions, visColObj, meshData, meshVertices, meshIndices, resourceDir);
}

void Child::initVisuals(std::vector<VisObject>& visualList) {
  for (VisObject& v : visuals) {
    v.localIdx = bodyIdx;
    visualList.push_back(v);
  }
  for (Child& c : child) c.initVisuals(visualList);
}

namespace {

// Puts a geom at the pose of its body (rotation Rb, origin pb) times its offset.
inline void placeGeom(const CollisionDefinition& d, const Mat<3, 3>& Rb, const Mat<3, 1>& pb) {
  Mat<3, 1> p;
  matvecmul(Rb, d.posOffset, p);
  for (size_t k = 0; k < 3; ++k) p[k] += pb[k];
  Mat<3, 3> R;
  rotmatmul(Rb, d.rotOffset, R);
  setGeomPose(d.colObj, p, R);
}

}  // namespace

void ArticulatedSystem::updateCollision() {
  limitProblemLog.clear();
  for (const CollisionDefinition& d : collisionDefinitions) placeGeom(d, rotW[d.localIdx], posW[d.localIdx]);
  onDemandGeomsStale_ = false;
}

void ArticulatedSystem::updateCollisionInStep() {
  limitProblemLog.clear();
  for (uint32_t i : geomsPlacedEachStep_) {
    const CollisionDefinition& d = collisionDefinitions[i];
    placeGeom(d, rotW[d.localIdx], posW[d.localIdx]);
  }
  // Same sizes from step to step: the copies allocate nothing.
  onDemandRotW_ = rotW;
  onDemandPosW_ = posW;
  onDemandGeomsStale_ = true;
}

size_t ArticulatedSystem::splitGeomPlacement() {
  placeDeferredGeoms();
  geomsPlacedEachStep_.clear();
  geomsPlacedOnDemand_.clear();
  for (size_t i = 0; i < collisionDefinitions.size(); ++i)
    (geomData(collisionDefinitions[i].colObj).canPair ? geomsPlacedEachStep_ : geomsPlacedOnDemand_)
        .push_back(uint32_t(i));
  return geomsPlacedOnDemand_.size();
}

void ArticulatedSystem::placeDeferredGeoms() const {
  if (!onDemandGeomsStale_) return;
  for (uint32_t i : geomsPlacedOnDemand_) {
    const CollisionDefinition& d = collisionDefinitions[i];
    placeGeom(d, onDemandRotW_[d.localIdx], onDemandPosW_[d.localIdx]);
  }
  onDemandGeomsStale_ = false;
}

void ArticulatedSystem::destroyCollisionBodies(dxSpace* space) {
  for (const CollisionDefinition& d : collisionDefinitions) {
    if (space != nullptr && dGeomGetSpace(d.colObj) == space) dSpaceRemove(space, d.colObj);
    destroyGeom(d.colObj);
  }
  collisionDefinitions.clear();
  // The triangle data go after the geoms that point into them.
  for (dTriMeshDataID data : meshData) dGeomTriMeshDataDestroy(data);
  meshData.clear();
}

void ArticulatedSystem::setGeomObjectIndex(size_t index) {
  for (const CollisionDefinition& d : collisionDefinitions) geomData(d.colObj).objectIndex = index;
}

void ArticulatedSystem::ignoreCollisionBetween(size_t bodyA, size_t bodyB) {
  for (const CollisionDefinition& a : collisionDefinitions) {
    if (a.localIdx != bodyA) continue;
    for (const CollisionDefinition& b : collisionDefinitions) {
      if (b.localIdx != bodyB) continue;
      geomData(a.colObj).ignoredGeoms.insert(b.colObj);
      geomData(b.colObj).ignoredGeoms.insert(a.colObj);
    }
  }
}

void ArticulatedSystem::setCollisionObjectPositionOffset(size_t i, const Mat<3, 1>& pos) {
  collisionDefinitions[i].posOffset = pos;
}

void ArticulatedSystem::setCollisionObjectOrientationOffset(size_t i, const Mat<3, 3>& rot) {
  collisionDefinitions[i].rotOffset = rot;
}

void ArticulatedSystem::setCollisionObjectShapeParameters(size_t i, const Mat<4, 1>& p) {
  dGeomID geom = collisionDefinitions[i].colObj;
  switch (visColObj[i].shape) {
    case Shape::Box:
      dGeomBoxSetLengths(geom, p[0], p[1], p[2]);
      break;
    case Shape::Sphere:
      dGeomSphereSetRadius(geom, p[0]);
      break;
    case Shape::Capsule:
      dGeomCapsuleSetParams(geom, p[0], p[1]);
      break;
    case Shape::Cylinder:
      dGeomCylinderSetParams(geom, p[0], p[1]);
      break;
    default:
      break;
  }
  visColObj[i].shapeParam = p;
}

// ------------------------------------------------------------------ tables --

void ArticulatedSystem::checkTree(const Child& root) const {
  if (root.type != Joint::FIXED && root.type != Joint::FLOATING)
    MSG_FATAL("The root of an articulated system must have a FIXED or FLOATING joint, not type " << int(root.type));
  // Every other node needs a known type; on a fixed joint it belongs in
  // fixedBodies, on a movable one in child.
  struct Walk {
    static void check(const Child& node, bool fixedExpected) {
      const bool known = node.type >= Joint::FIXED && node.type <= Joint::FLOATING;
      if (!known) MSG_FATAL("The joint of body \"" << node.bodyName << "\" has no type");
      if (known && (node.type == Joint::FIXED) != fixedExpected)
        MSG_FATAL("Body \"" << node.bodyName << "\" is in " << (fixedExpected ? "fixedBodies" : "child")
                            << " but its joint is " << (fixedExpected ? "movable" : "fixed"));
      for (const Child& c : node.child) check(c, false);
      for (const Child& c : node.fixedBodies) check(c, true);
    }
  };
  for (const Child& c : root.child) Walk::check(c, false);
  for (const Child& c : root.fixedBodies) Walk::check(c, true);
}

void ArticulatedSystem::appendRootFrame(const Child& root) {
  CoordinateFrame f;
  f.parentName = root.bodyName.empty() ? "ROOT" : root.bodyName;
  f.name = root.name.empty() ? "ROOT" : root.name;
  // The base link keeps its name here, so that pins and frame searches can
  // name it like any other link.
  f.bodyName = root.bodyName;
  f.parentId = 0;
  f.isMovableJoint = true;
  f.jointType = root.type;
  frames.push_back(f);
}

void ArticulatedSystem::sizeTables() {
  // Every table starts zeroed: no later stage may read an unwritten entry.
  const Mat<3, 1> zero3{0.0, 0.0, 0.0};
  Mat<3, 3> zero33;
  zero33.setZero();
  parent.assign(nbody, 0);
  children.assign(nbody, {});
  leaves.clear();
  depth.assign(nbody, 0);
  jointType.assign(nbody, Joint::FIXED);
  gcDimOf.assign(nbody, 0);
  gvDimOf.assign(nbody, 0);
  gcIdx.assign(nbody, 0);
  gvIdx.assign(nbody, 0);
  gcChain.assign(nbody, 0);
  gvChain.assign(nbody, 0);
  massOf.assign(nbody, 0.0);
  compositeMass.assign(nbody, 0.0);
  inertiaB.assign(nbody, zero33);
  comB.assign(nbody, zero3);
  jointPosP.assign(nbody, zero3);
  jointRotP.assign(nbody, Mat<3, 3>::getIdentity());
  jointAxisB.assign(nbody, zero3);
  bodyNames.assign(nbody, std::string());
  movableJointNames.clear();
  jointNameToGv.clear();
  velocityLimitOf.setZero(nbody);

  dofParent.assign(dof, 0);
  jointLimits.assign(dof, Mat<2, 1>{0.0, 0.0});
  jointDampingGv.setZero(dof);
  jointFrictionGv.setZero(dof);
  rotorInertiaGv.setZero(dof);
  tauUpper.setZero(dof);
  tauLower.setZero(dof);
  for (size_t i = 0; i < dof; ++i) {
    tauUpper[i] = 1e150;
    tauLower[i] = -1e150;
  }
  springs.clear();
  gc.setZero(gcDim);
  gv.setZero(dof);

  for (auto* table : {&rotW, &preRotW, &rotJ}) table->assign(nbody, Mat<3, 3>::getIdentity());
  for (auto* table :
       {&posW, &relPosW, &axisW, &comRelW, &comW, &linVelW, &angVelW, &jointLinVelW, &jointAngVelW, &linAccW, &angAccW})
    table->assign(nbody, zero3);
}

void ArticulatedSystem::registerSensors(Child& node) {
  for (auto& sensor : node.sensors) {
    if (!sensorMap.emplace(sensor->getName(), sensor).second) continue;  // an existing name keeps its sensor
    sensor->setOwner(this);
    // A tree built in code has no loader to set the flag: an inertial unit
    // needs the step's accelerations wherever it came from.
    if (sensor->getType() == Sensor::IMU) imuPresent = true;
    if (sensor->getFrameIdx() != kNone) continue;
    // A sensor on a movable body gets its frame here; those on merged links
    // got theirs while merging.
    CoordinateFrame f;
    f.parentName = node.bodyName;
    f.name = sensor->getName();
    f.position = sensor->getPositionInBody();
    f.orientation = sensor->getOrientationInBody();
    f.jointType = Joint::FIXED;
    sensor->setFrameIdx(frames.size());
    frames.push_back(f);
  }
}

void ArticulatedSystem::fillRootBody(Child& root) {
  root.bodyIdx = 0;
  root.registered = true;
  massOf[0] = root.mass;
  bodyNames[0] = root.bodyName;
  inertiaB[0] = root.inertia;
  comB[0] = root.com;
  jointPosP[0] = root.pos;
  jointAxisB[0] = root.axis;
  depth[0] = 1;
  jointType[0] = root.type;
  gcDimOf[0] = Joint::gcWidth(root.type);
  gvDimOf[0] = Joint::gvWidth(root.type);
  const bool floating = root.type == Joint::FLOATING;
  // Not -1: readers test the root's type before they use these.
  gcIdx[0] = floating ? 0 : size_t(0xFFFFFFFFu);
  gvIdx[0] = floating ? 0 : size_t(0xFFFFFFFFu);
  gcChain[0] = floating ? 7 : 0;
  gvChain[0] = floating ? 6 : 0;
  if (floating) {
    movableJointNames.push_back("ROOT");
    jointNameToGv["ROOT"] = 0;
  }
}

void ArticulatedSystem::indexBodies(Child& root) {
  if (root.child.empty()) return;
  gvIdx[1] = Joint::gvWidth(root.type);
  gcIdx[1] = Joint::gcWidth(root.type);
  // Depth-first pre-order over the child vectors: body numbers follow their
  // order.
  std::vector<std::pair<Child*, size_t>> stack;
  for (auto it = root.child.rbegin(); it != root.child.rend(); ++it) stack.emplace_back(&*it, 0);
  size_t i = 0;
  while (!stack.empty()) {
    auto [node, p] = stack.back();
    stack.pop_back();
    fillBody(*node, ++i, p);
    for (auto it = node->child.rbegin(); it != node->child.rend(); ++it) stack.emplace_back(&*it, i);
  }
}

void ArticulatedSystem::fillBody(Child& node, size_t i, size_t p) {
  registerSensors(node);
  node.bodyIdx = i;
  node.registered = true;
  node.parentIdx = p;
  parent[i] = p;
  depth[i] = depth[p] + 1;

  const size_t gcw = Joint::gcWidth(node.type), gvw = Joint::gvWidth(node.type);
  gcChain[i] = gcw + gcChain[p];
  gvChain[i] = gvw + gvChain[p];
  children[p].push_back(i);

  massOf[i] = node.mass;
  bodyNames[i] = node.bodyName;
  movableJointNames.push_back(node.name);
  inertiaB[i] = node.inertia;
  comB[i] = node.com;
  jointRotP[i] = node.rot;
  jointPosP[i] = node.pos;
  jointAxisB[i] = node.axis;

  const size_t g = gvIdx[i];
  const size_t entries = node.type == Joint::SPHERICAL ? 3 : 1;
  for (size_t k = 0; k < entries && g + k < dof; ++k) {
    jointDampingGv[g + k] = node.damping;
    jointFrictionGv[g + k] = node.friction;
    rotorInertiaGv[g + k] = node.rotorInertia;
  }
  jointNameToGv[node.name] = g;
  if (node.type == Joint::REVOLUTE || node.type == Joint::PRISMATIC) gc[gcIdx[i]] = node.jointRef;
  if (node.stiffness > 0.0) springs.push_back({i, node.stiffness, node.springMount});

  jointType[i] = node.type;
  gcDimOf[i] = gcw;
  gvDimOf[i] = gvw;
  if (g < dof) {
    jointLimits[g] = node.limit;
    if (node.effort > 0.0) {
      tauUpper[g] = node.effort;
      tauLower[g] = -node.effort;
    }
  }
  velocityLimitOf[i] = node.velocityLimit;

  if (i + 1 < nbody) {
    gcIdx[i + 1] = gcIdx[i] + gcw;
    gvIdx[i + 1] = gvIdx[i] + gvw;
  }
  if (node.child.empty()) leaves.push_back(i);
}

void ArticulatedSystem::computeCompositeMass() {
  compositeMass = massOf;
  for (size_t i = nbody; i-- > 0;)
    for (size_t c : children[i]) compositeMass[i] += compositeMass[c];
}

void ArticulatedSystem::computeDofParent() {
  for (size_t i = 1; i < nbody; ++i) {
    const size_t p = parent[i];
    if (gvDimOf[i] == 0) continue;
    const size_t g = gvIdx[i];
    if (p == 0 && jointType[0] == Joint::FIXED)
      dofParent[g] = kNone;
    else
      dofParent[g] = gvIdx[p] + gvDimOf[p] - 1;
    for (size_t j = 1; j < gvDimOf[i]; ++j) dofParent[g + j] = g + j - 1;
  }
  if (dof == 0) return;
  dofParent[0] = kNone;
  for (size_t j = 1; j < gvDimOf[0]; ++j) dofParent[j] = j - 1;
}

void ArticulatedSystem::resolveFrameParents() {
  // The last body of that name wins; a frame with no match keeps 0.
  for (CoordinateFrame& f : frames)
    for (size_t j = 0; j < nbody; ++j)
      if (bodyNames[j] == f.parentName) f.parentId = j;
}

void ArticulatedSystem::placeFixedBase(const Child& root) {
  if (root.type != Joint::FIXED) return;
  posW[0] = baseJointPos;
  rotW[0] = baseJointRot;
  rotW[0] = root.rot;
  axisW[0] = jointAxisB[0];
  linVelW[0].setZero();
  angVelW[0].setZero();
  matvecmul(rotW[0], comB[0], comRelW[0]);
  for (size_t k = 0; k < 3; ++k) comW[0][k] = posW[0][k] + comRelW[0][k];
}

void ArticulatedSystem::classifyJointShapes() {
  jointShape_.assign(nbody, JointShape{});
  for (size_t i = 0; i < nbody; ++i) {
    const Mat<3, 1>& a = jointAxisB[i];
    for (int k = 0; k < 3; ++k)
      if (a[size_t(k)] == 1.0 && a[size_t((k + 1) % 3)] == 0.0 && a[size_t((k + 2) % 3)] == 0.0)
        jointShape_[i].axisIndex = int8_t(k);
    bool identity = true;
    for (size_t r = 0; r < 3; ++r)
      for (size_t c = 0; c < 3; ++c) identity = identity && jointRotP[i](r, c) == (r == c ? 1.0 : 0.0);
    jointShape_[i].identityFrame = identity;
  }
}

void ArticulatedSystem::ignoreCollisionWithMassiveAncestor() {
  for (size_t i = 1; i < nbody; ++i) {
    size_t a = parent[i];
    while (a != kNone && massOf[a] == 0.0) a = parent[a];
    if (a == kNone) continue;
    ignoreCollisionBetween(i, a);
  }
}

void ArticulatedSystem::setDefaultCoordinates() {
  for (size_t i = 1; i < nbody; ++i)
    if (jointType[i] == Joint::SPHERICAL) gc[gcIdx[i]] = 1.0;
  if (jointType[0] == Joint::FLOATING) gc[3] = 1.0;
}

void ArticulatedSystem::warnAboutMasslessSubtrees() const {
  // A joint that carries no mass has zero inertia in joint space, and the
  // dynamics divide by it.
  for (size_t i = (jointType[0] == Joint::FLOATING ? 0 : 1); i < nbody; ++i) {
    if (compositeMass[i] != 0.0) continue;
    if (i > 0 && compositeMass[parent[i]] == 0.0 && parent[i] != 0) continue;  // reported at the top of the subtree
    MSG_WARN("Body \"" << bodyNames[i]
                       << "\" and the bodies below it have no mass: its joint has no inertia and the dynamics of this "
                          "system will not be finite. Give the link an inertial element with a mass.");
  }
}

// ------------------------------------------------------------------- names --

size_t ArticulatedSystem::getFrameIdxByName(const std::string& name) const {
  for (size_t i = 0; i < frames.size(); ++i)
    if (frames[i].name == name) return i;
  return kNone;
}

CoordinateFrame& ArticulatedSystem::getFrameByName(const std::string& name) {
  const size_t idx = getFrameIdxByName(name);
  if (idx == kNone) {
    MSG_FATAL("There is no frame named \"" << name << "\"");
    return frames[0];
  }
  return frames[idx];
}

size_t ArticulatedSystem::getBodyIdx(const std::string& name) const {
  for (size_t i = 0; i < bodyNames.size(); ++i)
    if (bodyNames[i] == name) return i;
  for (const CoordinateFrame& f : frames)
    if (f.bodyName == name)
      MSG_FATAL(
          "This is a link name. In VorSim, links with fixed joints are consumed by a parent with a movable joint. If "
          "you want to access a link position, use a frame instead. Frames are attached to all joints, including "
          "fixed ones.");
  return kNone;
}

BodyType ArticulatedSystem::getBodyType(size_t localIdx) const {
  return (localIdx == 0 && jointType[0] == Joint::FIXED) ? STATIC : DYNAMIC;
}

void ArticulatedSystem::printOutBodyNamesInOrder() const {
  for (size_t i = 0; i < bodyNames.size(); ++i) std::cout << i << "th body: " << bodyNames[i] << std::endl;
}

void ArticulatedSystem::printOutMovableJointNamesInOrder() const {
  for (size_t i = 0; i < movableJointNames.size(); ++i)
    std::cout << i << "th body: " << movableJointNames[i] << std::endl;
}

void ArticulatedSystem::printOutFrameNamesInOrder() const {
  for (size_t i = 0; i < frames.size(); ++i) std::cout << i << "th frame: " << frames[i].name << std::endl;
}

}  // namespace vorsim
