// The MJCF reader: World::loadMjcf for a whole file, LoadFromMjcf for the
// Child tree of one articulated body, and the geoms both share.
#include "mjcfLoader.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

namespace vorsim {
namespace mjcf {

namespace {

constexpr double kDegree = 0.017453292519943295;
const char* const kEulerSequences[] = {"xyz", "xzy", "xyx", "xzx", "yxz", "yzx",
                                       "yzy", "yxy", "zxy", "zyx", "zyz", "zxz"};

// Typed reading of one attribute of one element: true when it is there.
// Malformed numbers are located fatal messages.
bool readValue(const VorSimTinyXmlWrapper& e, const std::string& attribute, double& out) {
  return xml::readNumberIfExists(e, attribute, out);
}
bool readValue(const VorSimTinyXmlWrapper& e, const std::string& attribute, Mat<2, 1>& out) {
  return xml::readVectorIfExists(e, attribute, out);
}
bool readValue(const VorSimTinyXmlWrapper& e, const std::string& attribute, Mat<3, 1>& out) {
  return xml::readVectorIfExists(e, attribute, out);
}
bool readValue(const VorSimTinyXmlWrapper& e, const std::string& attribute, std::string& out) {
  return e.getAttributeIfExists(attribute, out);
}
bool readValue(const VorSimTinyXmlWrapper& e, const std::string& attribute, size_t& out) {
  return e.getAttributeIfExists(attribute, out);
}

Mat<3, 3> mul(const Mat<3, 3>& a, const Mat<3, 3>& b) {
  Mat<3, 3> c;
  matmul(a, b, c);
  return c;
}

Mat<3, 3> transposed(const Mat<3, 3>& a) {
  Mat<3, 3> t;
  for (size_t i = 0; i < 3; ++i)
    for (size_t j = 0; j < 3; ++j) t(i, j) = a(j, i);
  return t;
}

bool isMovableJointWord(const std::string& word) { return word == "hinge" || word == "slide" || word == "ball"; }

}  // namespace

Pose compose(const Pose& a, const Pose& b) {
  Pose c;
  c.R = mul(a.R, b.R);
  matvecmul(a.R, b.p, c.p);
  for (size_t k = 0; k < 3; ++k) c.p[k] += a.p[k];
  return c;
}

Pose inverse(const Pose& a) {
  Pose b;
  b.R = transposed(a.R);
  matvecmul(b.R, a.p, b.p);
  for (size_t k = 0; k < 3; ++k) b.p[k] = -b.p[k];
  return b;
}

std::string locationOf(const VorSimTinyXmlWrapper& element) {
  return "in '" + element.getFileName() + "' at row:" + std::to_string(element.getRow()) +
         " col:" + std::to_string(element.getColumn()) + ", the node '" + element.getName() + "'";
}

void flattenMjcfDefaults(DefaultMap& defaults, const std::vector<VorSimTinyXmlWrapper>& children,
                         const std::string& parentName) {
  for (VorSimTinyXmlWrapper c : children) {
    std::string className;
    if (!c.getAttributeIfExists("class", className)) {
      c.errorMessage("a nested default needs a class attribute");
      continue;
    }
    c.setAttribute("parent", parentName);
    defaults[className] = c;
    flattenMjcfDefaults(defaults, c.getChildren("default"), className);
  }
}

void movedFixedBodies(Child& node) {
  for (Child& c : node.child) movedFixedBodies(c);
  for (const Child& c : node.child)
    if (c.type == Joint::FIXED) node.fixedBodies.push_back(c);
  // The last entry takes each freed place. An entry moved in is looked at
  // again, so that no fixed body stays behind among the movable ones.
  for (size_t i = 0; i < node.child.size();) {
    if (node.child[i].type != Joint::FIXED) {
      ++i;
      continue;
    }
    if (i + 1 != node.child.size()) node.child[i] = std::move(node.child.back());
    node.child.pop_back();
  }
}

// ------------------------------------------------------------ parameters --

template <typename T>
bool LoadFromMjcf::readFromDefault(const DefaultMap& defaults, const std::string& className, const std::string& tag,
                                   const std::string& attribute, T& out, const VorSimTinyXmlWrapper& user) {
  std::string current = className;
  for (size_t depth = 0; depth < 64; ++depth) {
    const auto it = defaults.find(current);
    if (it == defaults.end()) {
      user.errorMessage("invalid unordered_map<K, T> key: the default class \"" + current + "\" is not defined");
      return false;
    }
    const VorSimTinyXmlWrapper& classElement = it->second;
    if (classElement.isDummy()) return false;  // a file without defaults
    auto tags = classElement.getChildren(tag);
    if (!tags.empty() && readValue(tags[0], attribute, out)) return true;
    if (current == "default") return false;
    std::string parent;
    if (!classElement.getAttributeIfExists("parent", parent)) return false;
    current = parent;
  }
  user.errorMessage("the default classes above \"" + className + "\" form a cycle");
  return false;
}

template <typename T>
bool LoadFromMjcf::getParameter(const DefaultMap& defaults, const VorSimTinyXmlWrapper& element, const std::string& tag,
                                const std::string& attribute, T& out) {
  if (readValue(element, attribute, out)) return true;
  std::string className = "default";
  element.getAttributeIfExists("class", className);
  return readFromDefault(defaults, className, tag, attribute, out, element);
}

template bool LoadFromMjcf::getParameter(const DefaultMap&, const VorSimTinyXmlWrapper&, const std::string&,
                                         const std::string&, double&);
template bool LoadFromMjcf::getParameter(const DefaultMap&, const VorSimTinyXmlWrapper&, const std::string&,
                                         const std::string&, Mat<2, 1>&);
template bool LoadFromMjcf::getParameter(const DefaultMap&, const VorSimTinyXmlWrapper&, const std::string&,
                                         const std::string&, Mat<3, 1>&);
template bool LoadFromMjcf::getParameter(const DefaultMap&, const VorSimTinyXmlWrapper&, const std::string&,
                                         const std::string&, std::string&);
template bool LoadFromMjcf::getParameter(const DefaultMap&, const VorSimTinyXmlWrapper&, const std::string&,
                                         const std::string&, size_t&);

// ------------------------------------------------------------ placement --

void LoadFromMjcf::getMjcfOrientation(const VorSimTinyXmlWrapper& element, Mat<3, 3>& R, const std::string& eulerseq,
                                      const std::string& angle) {
  const double unit = angle == "degree" ? kDegree : 1.0;
  Mat<6, 1> six;
  Mat<4, 1> four;
  Mat<3, 1> three;
  R.setIdentity();
  if (xml::readVectorIfExists(element, "fromto", six)) {
    Mat<3, 1> z{six[3] - six[0], six[4] - six[1], six[5] - six[2]};
    const double n = z.norm();
    if (n == 0.0) {
      element.errorMessage("the segment 'fromto' has zero length");
      return;
    }
    z /= n;
    zaxisToRotMat(z, R);
  } else if (xml::readVectorIfExists(element, "xyaxes", six)) {
    // The two axes as they stand; the third is their cross product.
    const Mat<3, 1> x{six[0], six[1], six[2]}, y{six[3], six[4], six[5]};
    const Mat<3, 1> z = cross(x, y);
    for (size_t i = 0; i < 3; ++i) {
      R(i, 0) = x[i];
      R(i, 1) = y[i];
      R(i, 2) = z[i];
    }
  } else if (xml::readVectorIfExists(element, "axisangle", four)) {
    Mat<3, 1> axis{four[0], four[1], four[2]};
    const double n = axis.norm();
    if (n == 0.0) {
      element.errorMessage("the axis of 'axisangle' has zero length");
      return;
    }
    axis /= n;
    angleAxisToRotMat(axis, four[3] * unit, R);
  } else if (xml::readVectorIfExists(element, "zaxis", three)) {
    const double n = three.norm();
    if (n == 0.0) {
      element.errorMessage("the axis 'zaxis' has zero length");
      return;
    }
    three /= n;
    zaxisToRotMat(three, R);
  } else if (xml::readVectorIfExists(element, "quat", four)) {
    const double n = four.norm();
    if (n == 0.0) {
      element.errorMessage("the quaternion 'quat' has zero length");
      return;
    }
    four /= n;
    quatToRotMat(four, R);
  } else if (xml::readVectorIfExists(element, "euler", three)) {
    for (size_t k = 0; k < 3 && k < eulerseq.size(); ++k) {
      Mat<3, 1> axis{0.0, 0.0, 0.0};
      axis[size_t(eulerseq[k] - 'x')] = 1.0;
      Mat<3, 3> step;
      angleAxisToRotMat(axis, three[k] * unit, step);
      R = mul(R, step);
    }
  }
}

void LoadFromMjcf::posFromFromTo(const VorSimTinyXmlWrapper& element, Mat<3, 1>& p) {
  Mat<6, 1> six;
  if (!xml::readVectorIfExists(element, "fromto", six)) return;
  for (size_t k = 0; k < 3; ++k) p[k] = 0.5 * (six[k] + six[k + 3]);
}

void LoadFromMjcf::getMjcfPos(const VorSimTinyXmlWrapper& element, Mat<3, 1>& p) {
  p = {0.0, 0.0, 0.0};
  xml::readVectorIfExists(element, "pos", p);
  posFromFromTo(element, p);
}

void LoadFromMjcf::getMjcfSizeParam(const VorSimTinyXmlWrapper& element, const std::vector<double>& sizeNumbers,
                                    Shape::Type shape, Mat<4, 1>& size) {
  size.setZero();
  size_t count = std::min<size_t>(sizeNumbers.size(), 4);
  for (size_t i = 0; i < count; ++i) size[i] = sizeNumbers[i];
  Mat<6, 1> six;
  if (count <= 1 && xml::readVectorIfExists(element, "fromto", six)) {
    const Mat<3, 1> d{six[3] - six[0], six[4] - six[1], six[5] - six[2]};
    size[count++] = 0.5 * d.norm();
  }
  // The format gives half lengths; the shapes here take full ones.
  switch (shape) {
    case Shape::Box:
      if (count < 3) element.errorMessage("box requires 3 size parameters");
      for (size_t i = 0; i < 3; ++i) size[i] *= 2.0;
      break;
    case Shape::Capsule:
    case Shape::Cylinder:
      if (count < 2) {
        element.errorMessage("capsule and cylinder requires 2 size parameters");
        break;
      }
      size[1] *= 2.0;
      break;
    case Shape::Sphere:
      if (count < 1) element.errorMessage("sphere requires 1 size parameter");
      break;
    default:
      break;
  }
}

// ---------------------------------------------------------------- geoms --

namespace {

// The colour of a geom or site from its class chain: the nearest class whose
// <geom> (or <site>) default gives an rgba, or a material with a colour.
// rgba stays as it is when no class gives one.
void getColorFromMaterial(const DefaultMap& defaults, const MjcfAssets& assets, const std::string& className,
                          const std::string& tag, std::string& rgba, const VorSimTinyXmlWrapper& user) {
  std::string current = className;
  for (size_t depth = 0; depth < 64; ++depth) {
    const auto it = defaults.find(current);
    if (it == defaults.end()) {
      user.errorMessage("invalid unordered_map<K, T> key: the default class \"" + current + "\" is not defined");
      return;
    }
    if (it->second.isDummy()) return;
    auto tags = it->second.getChildren(tag);
    if (!tags.empty()) {
      if (tags[0].getAttributeIfExists("rgba", rgba)) return;
      std::string material;
      if (tags[0].getAttributeIfExists("material", material)) {
        const auto m = assets.materials.find(material);
        if (m != assets.materials.end()) {
          rgba = m->second;
          return;
        }
      }
    }
    if (current == "default") return;
    if (!it->second.getAttributeIfExists("parent", current)) return;
  }
}

}  // namespace

bool LoadFromMjcf::readGeom(const DefaultMap& defaults, const MjcfAssets& assets, const MjcfCompilerSetting& compiler,
                            const VorSimTinyXmlWrapper& element, const std::string& tag, bool allowPlane, MjcfGeom& g) {
  g = MjcfGeom();
  getParameter(defaults, element, tag, "type", g.typeWord);
  getParameter(defaults, element, tag, "scale", g.scale);
  getParameter(defaults, element, tag, "density", g.density);
  getParameter(defaults, element, tag, "contype", g.contype);
  getParameter(defaults, element, tag, "conaffinity", g.conaffinity);
  getParameter(defaults, element, tag, "material", g.material);
  getParameter(defaults, element, tag, "collision_material", g.collisionMaterial);
  element.getAttributeIfExists("name", g.name);

  // Colour: the element's rgba, else its material's, else its classes'.
  std::string rgbaText = "0.7, 0.7, 0.7, 1.0";
  std::string own;
  if (element.getAttributeIfExists("rgba", own) || (tag == "site" && element.getAttributeIfExists("color", own))) {
    rgbaText = own;
  } else if (element.getAttributeIfExists("material", own) && assets.materials.count(own)) {
    rgbaText = assets.materials.at(own);
  } else {
    std::string className = "default";
    element.getAttributeIfExists("class", className);
    getColorFromMaterial(defaults, assets, className, tag, rgbaText, element);
  }
  std::vector<double> rgba;
  if (!xml::parseNumbers(rgbaText, rgba) || rgba.size() != 4) {
    element.errorMessage("the colour '" + rgbaText + "' should be four numbers");
    return false;
  }
  for (size_t i = 0; i < 4; ++i) g.rgba[i] = rgba[i];

  getMjcfOrientation(element, g.pose.R, compiler.eulerseq, compiler.angle);
  getMjcfPos(element, g.pose.p);

  const std::string& word = g.typeWord;
  if (word == "box") {
    g.shape = Shape::Box;
  } else if (word == "cylinder") {
    g.shape = Shape::Cylinder;
  } else if (word == "capsule") {
    g.shape = Shape::Capsule;
  } else if (word == "sphere") {
    g.shape = Shape::Sphere;
  } else if (word == "mesh") {
    g.shape = Shape::Mesh;
  } else if (word == "plane" && allowPlane) {
    g.isPlane = true;
    return true;
  } else {
    element.errorMessage(word + " geom is not supported.");
    return false;
  }

  if (g.shape == Shape::Mesh) {
    std::string meshName;
    getParameter(defaults, element, tag, "mesh", meshName);
    const auto it = assets.meshes.find(meshName);
    if (it == assets.meshes.end()) {
      element.errorMessage(meshName + " asset not found");
      return false;
    }
    g.meshFile = it->second.first;
    g.scale = it->second.second;
    g.size = {g.scale[0], g.scale[1], g.scale[2], 0.0};
    return true;
  }

  std::vector<double> sizeNumbers;
  std::string sizeText;
  if (getParameter(defaults, element, tag, "size", sizeText) && !xml::parseNumbers(sizeText, sizeNumbers))
    element.errorMessage("the attribute 'size' holds text that is not a number: '" + sizeText + "'");
  Mat<6, 1> fromto;
  // A site without a size anywhere is drawn at the format's default size.
  if (tag == "site" && sizeNumbers.empty() && !xml::readVectorIfExists(element, "fromto", fromto))
    sizeNumbers = {0.005, 0.005, 0.005};
  getMjcfSizeParam(element, sizeNumbers, g.shape, g.size);
  return true;
}

// ------------------------------------------------------------ the tree --

void LoadFromMjcf::load(ArticulatedSystem& system, const VorSimTinyXmlWrapper& body) {
  system_ = &system;
  Child root;
  processBody(root, Pose(), "ROOT", true, body, 0);
  movedFixedBodies(root);

  if (root.type != Joint::FLOATING && root.type != Joint::FIXED) {
    // A moving joint at the root hangs from a fixed, massless body at the
    // world's origin.
    Child top;
    top.bodyName = "root";
    top.type = Joint::FIXED;
    top.child.push_back(std::move(root));
    root = std::move(top);
    system.baseJointPos = {0.0, 0.0, 0.0};
    system.baseJointRot = Mat<3, 3>::getIdentity();
  } else if (root.type == Joint::FIXED) {
    getMjcfOrientation(body, system.baseJointRot, compiler_.eulerseq, compiler_.angle);
    system.baseJointPos = {0.0, 0.0, 0.0};
    xml::readVectorIfExists(body, "pos", system.baseJointPos);
  }
  system.child.clear();
  system.child.push_back(std::move(root));
}

bool LoadFromMjcf::readJoint(Child& node, const VorSimTinyXmlWrapper& joint, const std::string& name, bool isRoot,
                             size_t /*jointCount*/, Pose& jointPose) {
  const bool degree = compiler_.angle == "degree";
  std::string word = isRoot ? "fixed" : "hinge";
  getParameter(defaults_, joint, "joint", "type", word);

  Mat<3, 1> axis{0.0, 0.0, 1.0};
  getParameter(defaults_, joint, "joint", "axis", axis);
  axis /= axis.norm();
  getParameter(defaults_, joint, "joint", "damping", node.damping);
  getParameter(defaults_, joint, "joint", "armature", node.rotorInertia);
  Mat<2, 1> range;
  if (getParameter(defaults_, joint, "joint", "range", range)) {
    if (degree) range *= kDegree;
    node.limit = range;
  }
  getParameter(defaults_, joint, "joint", "stiffness", node.stiffness);
  double springref = 0.0;
  if (getParameter(defaults_, joint, "joint", "springref", springref))
    node.springMount[0] = degree ? springref * kDegree : springref;
  node.name = name + "_joint";
  getParameter(defaults_, joint, "joint", "name", node.name);
  jointPose = Pose();
  getParameter(defaults_, joint, "joint", "pos", jointPose.p);
  getMjcfOrientation(joint, jointPose.R, compiler_.eulerseq, compiler_.angle);
  double ref = 0.0;
  if (xml::readNumberIfExists(joint, "ref", ref)) node.jointRef = (word == "hinge" && degree) ? ref * kDegree : ref;
  // The file has no velocity limit; a limited joint must still move.
  node.velocityLimit = 1e6;

  // The axis lives in the joint frame.
  matvecmul(transposed(jointPose.R), axis, node.axis);

  if (word == "free" || word == "floating") {
    node.type = Joint::FLOATING;
  } else if (word == "ball") {
    node.type = Joint::SPHERICAL;
    node.stiffness = 0.0;
    node.springMount = {1.0, 0.0, 0.0, 0.0};
  } else if (word == "slide") {
    node.type = Joint::PRISMATIC;
  } else if (word == "hinge") {
    node.type = Joint::REVOLUTE;
  } else {
    if (word != "fixed")
      MSG_WARN(locationOf(joint) << ": the joint type \"" << word
                                 << "\" is not read (free, ball, slide, hinge are): the body is fixed to its parent");
    node.type = Joint::FIXED;
    return false;
  }
  return true;
}

void LoadFromMjcf::processBody(Child& node, const Pose& inherited, std::string name, bool isRoot,
                               const VorSimTinyXmlWrapper& body, size_t firstJoint) {
  if (firstJoint == 0) body.getAttributeIfExists("name", name);
  node.bodyName = name;
  // A continuation of a split body inherits the body's pose already.
  Pose bodyPose;
  if (firstJoint == 0) {
    getMjcfOrientation(body, bodyPose.R, compiler_.eulerseq, compiler_.angle);
    xml::readVectorIfExists(body, "pos", bodyPose.p);
  }
  const Pose B = compose(inherited, bodyPose);
  const auto joints = body.getChildren("joint");

  if (firstJoint >= joints.size()) {
    node.type = Joint::FIXED;
    node.rot = B.R;
    node.pos = B.p;
    node.name = name + "_joint";
    readContent(node, Pose(), name, body);
    return;
  }

  Pose jointPose;
  if (!readJoint(node, joints[firstJoint], name, isRoot, joints.size() - firstJoint, jointPose))
    jointPose = Pose();  // a fixed joint sits at the body's frame
  const Pose J = compose(B, jointPose);
  node.rot = J.R;
  node.pos = J.p;

  const size_t remaining = joints.size() - firstJoint;
  if (remaining >= 2) {
    // One joint per body: this node is massless, the next carries the rest,
    // and the body's content reaches the last of the chain.
    node.mass = 0.0;
    node.inertia.setZero();
    node.com.setZero();
    node.child.emplace_back();
    processBody(node.child.back(), inverse(jointPose), name + "_" + std::to_string(remaining), false, body,
                firstJoint + 1);
    return;
  }
  readContent(node, inverse(jointPose), name, body);
}

void LoadFromMjcf::readContent(Child& node, const Pose& offset, const std::string& name,
                               const VorSimTinyXmlWrapper& body) {
  const auto inertials = body.getChildren("inertial");
  const bool hasInertial = !inertials.empty();
  if (hasInertial) {
    const VorSimTinyXmlWrapper& in = inertials[0];
    if (!getParameter(defaults_, in, "inertial", "mass", node.mass)) in.getAttributeMust<std::string>("mass");
    Mat<3, 1> pos{0.0, 0.0, 0.0};
    if (!getParameter(defaults_, in, "inertial", "pos", pos)) in.getAttributeMust<std::string>("pos");
    Body inertia;
    Mat<6, 1> full;
    Mat<3, 1> diagonal;
    if (xml::readVectorIfExists(in, "fullinertia", full))
      inertia.setInertiaMjcfOrder(full);
    else if (xml::readVectorIfExists(in, "diaginertia", diagonal))
      inertia.setInertia(diagonal);
    else
      in.errorMessage(
          "Inertia is not defined. \"inertial\" tag must have either \"fullinertia\" or \"diaginertia\" attribute");
    Mat<3, 3> principal;
    getMjcfOrientation(in, principal, compiler_.eulerseq, compiler_.angle);
    similarityTransform(mul(offset.R, principal), inertia.inertia, node.inertia);
    matvecmul(offset.R, pos, node.com);
    for (size_t k = 0; k < 3; ++k) node.com[k] += offset.p[k];
  }

  std::vector<double> masses;
  std::vector<Mat<3, 1>> positions;
  std::vector<Mat<3, 3>> inertias;
  size_t counter = 0;
  for (const VorSimTinyXmlWrapper& element : body.getChildren("geom")) {
    MjcfGeom g;
    if (!readGeom(defaults_, assets_, compiler_, element, "geom", false, g)) continue;
    const Pose P = compose(offset, g.pose);
    const std::string geomName = name + "/" + std::to_string(counter++);
    CollisionBody collision(g.shape, g.size, P.p, P.R, g.scale, geomName, g.collisionMaterial, g.material, g.meshFile);
    // Without affinity the geom keeps the default bits (and still collides).
    if (g.conaffinity != 0) {
      collision.collisionGroup = g.contype;
      collision.collisionMask = g.conaffinity;
    }
    node.collisionBodies.push_back(collision);
    if (g.rgba[3] != 0.0)
      node.addVisualObject(g.shape, g.size, P.p, P.R, g.rgba, g.scale, g.meshFile, geomName, g.material);
    if (!hasInertial) {
      double m = 0.0;
      Mat<3, 3> I;
      getInertialAssumingUniformDensity(g.shape, g.size, P.R, g.density, m, I);
      masses.push_back(m);
      positions.push_back(P.p);
      inertias.push_back(I);
    }
  }
  if (!hasInertial && !masses.empty()) {
    double M = 0.0;
    Mat<3, 1> S{0.0, 0.0, 0.0};
    for (size_t k = 0; k < masses.size(); ++k) {
      M += masses[k];
      for (size_t d = 0; d < 3; ++d) S[d] += masses[k] * positions[k][d];
    }
    // Geoms without mass (density 0, meshes) leave the centre at the origin.
    Mat<3, 1> com{0.0, 0.0, 0.0};
    if (M != 0.0) com = S / M;
    Mat<3, 3> I;
    I.setZero();
    for (size_t k = 0; k < masses.size(); ++k) {
      I += inertias[k];
      addInertia(masses[k], positions[k] - com, I);
    }
    node.mass = M;
    node.com = com;
    node.inertia = I;
  }

  for (const VorSimTinyXmlWrapper& element : body.getChildren("site")) {
    MjcfGeom g;
    if (!readGeom(defaults_, assets_, compiler_, element, "site", false, g)) continue;
    const std::string siteName = element.getAttributeMust<std::string>("name");
    const Pose P = compose(offset, g.pose);
    Child site;
    site.type = Joint::FIXED;
    site.name = siteName;
    site.bodyName = siteName;
    site.pos = P.p;
    site.rot = P.R;
    if (g.rgba[3] != 0.0)
      site.addVisualObject(g.shape, g.size, Mat<3, 1>{0.0, 0.0, 0.0}, Mat<3, 3>::getIdentity(), g.rgba, g.scale,
                           g.meshFile, siteName, g.material);
    node.fixedBodies.push_back(site);
  }

  const auto bodies = body.getChildren("body");
  for (size_t j = 0; j < bodies.size(); ++j) {
    node.child.emplace_back();
    processBody(node.child.back(), offset, name + "_" + std::to_string(j), false, bodies[j], 0);
  }
}

}  // namespace mjcf

// ------------------------------------------------------- ArticulatedSystem --

ArticulatedSystem::ArticulatedSystem(const VorSimTinyXmlWrapper& body, const std::string& resPath,
                                     const mjcf::DefaultMap& defaults, const mjcf::MjcfAssets& assets,
                                     const mjcf::MjcfCompilerSetting& compiler, ArticulatedSystemOption option)
    : option_(option) {
  resourceDir = resPath;
  mjcf::LoadFromMjcf(defaults, assets, compiler).load(*this, body);
  // The pose of a free root, which init leaves at the origin.
  const Mat<3, 3> startRot = child.empty() ? Mat<3, 3>::getIdentity() : child[0].rot;
  const Mat<3, 1> startPos = child.empty() ? Mat<3, 1>{0.0, 0.0, 0.0} : child[0].pos;
  initOrRelease();
  if (nbody > 0 && jointType[0] == Joint::FLOATING) {
    Mat<4, 1> q;
    rotMatToQuat(startRot, q);
    q /= q.norm();
    for (size_t k = 0; k < 3; ++k) gc[k] = startPos[k];
    for (size_t k = 0; k < 4; ++k) gc[3 + k] = q[k];
    updateKinematics();
  }
}

// ------------------------------------------------------------------ World --

namespace {

struct EqualityPin {
  PinConstraintDefinition definition;
  VorSimTinyXmlWrapper element;
  bool used = false;
};

bool hasBodyNamed(const ArticulatedSystem& system, const std::string& name) {
  for (const CoordinateFrame& f : system.getFrames())
    if (f.bodyName == name) return true;
  return false;
}

}  // namespace

void World::loadMjcf(const std::string& path) {
  const VorSimTinyXmlWrapper model(path, "mujoco");
  if (model.isDummy()) return;
  const std::string directory = directoryOf(path);

  mjcf::MjcfCompilerSetting compiler;
  const auto compilers = model.getChildren("compiler");
  if (!compilers.empty()) {
    const VorSimTinyXmlWrapper& c = compilers[0];
    c.getAttributeIfExists("angle", compiler.angle);
    if (compiler.angle != "degree" && compiler.angle != "radian") {
      c.errorMessage("the angle attribute in the compiler node should be \"degree\" or \"radian\"");
      return;
    }
    std::string sequence;
    if (c.getAttributeIfExists("eulerseq", sequence)) {
      std::transform(sequence.begin(), sequence.end(), sequence.begin(),
                     [](unsigned char ch) { return char(std::tolower(ch)); });
      if (sequence.size() != 3) {
        c.errorMessage("eulerseq attribute in the compiler node should be 3-character long");
        return;
      }
      bool known = false;
      std::string list;
      for (const char* s : mjcf::kEulerSequences) {
        known = known || sequence == s;
        list += list.empty() ? s : std::string(", ") + s;
      }
      if (!known) {
        c.errorMessage(sequence + " is not a proper euler angle. Allowed values are " + list);
        return;
      }
      compiler.eulerseq = sequence;
    }
  }

  const auto worldbodies = model.getChildren("worldbody");
  const auto defaultElements = model.getChildren("default");
  mjcf::DefaultMap defaults;
  defaults["default"] = defaultElements.empty() ? VorSimTinyXmlWrapper() : defaultElements[0];
  if (!defaultElements.empty())
    mjcf::flattenMjcfDefaults(defaults, defaultElements[0].getChildren("default"), "default");

  const auto options = model.getChildren("option");
  if (!options.empty()) {
    std::string integrator = "Euler";  // read, and changes nothing
    options[0].getAttributeIfExists("integrator", integrator);
    double timeStep = 0.002;
    xml::readNumberIfExists(options[0], "timestep", timeStep);
    setTimeStep(timeStep);
  }

  mjcf::MjcfAssets assets;
  for (const VorSimTinyXmlWrapper& asset : model.getChildren("asset")) {
    for (const VorSimTinyXmlWrapper& mesh : asset.getChildren("mesh")) {
      const std::string name = mesh.getAttributeMust<std::string>("name");
      const std::string file = mesh.getAttributeMust<std::string>("file");
      Mat<3, 1> scale{1.0, 1.0, 1.0};
      xml::readVectorIfExists(mesh, "scale", scale);
      assets.meshes[name] = {file, scale};
    }
    for (const VorSimTinyXmlWrapper& material : asset.getChildren("material")) {
      const std::string name = material.getAttributeMust<std::string>("name");
      std::string rgba = "0.7, 0.7, 0.7, 1.0";
      material.getAttributeIfExists("rgba", rgba);
      assets.materials[name] = rgba;
    }
  }
  if (worldbodies.empty()) return;
  const VorSimTinyXmlWrapper& worldbody = worldbodies[0];

  const Mat<3, 3> identity = Mat<3, 3>::getIdentity();
  const Mat<3, 1> origin{0.0, 0.0, 0.0};
  for (const VorSimTinyXmlWrapper& geom : worldbody.getChildren("geom")) {
    SingleBodyObject* object = addMjcfGeom(geom, defaults, assets, compiler, identity, origin, nullptr, directory);
    if (object) object->setBodyType(STATIC);
  }

  std::vector<EqualityPin> pins;
  const auto equalities = model.getChildren("equality");
  if (!equalities.empty()) {
    for (const VorSimTinyXmlWrapper& e : equalities[0].getChildren()) {
      if (e.getName() != "connect")
        MSG_WARN(mjcf::locationOf(e) << ": read as a pin (a connect) between body1 and body2 at anchor");
      EqualityPin pin;
      pin.definition.anchor = xml::readVector<3>(e, "anchor");
      pin.definition.body1 = e.getAttributeMust<std::string>("body1");
      pin.definition.body2 = e.getAttributeMust<std::string>("body2");
      pin.element = e;
      pins.push_back(pin);
    }
  }

  const auto bodies = worldbody.getChildren("body");
  for (size_t i = 0; i < bodies.size(); ++i) {
    const VorSimTinyXmlWrapper& body = bodies[i];
    std::string name = std::to_string(i);
    body.getAttributeIfExists("name", name);

    // A body without sub-bodies is a single body, unless a joint that a
    // single body cannot hold (hinge, slide, ball) ties it to the world.
    bool moving = false;
    for (const VorSimTinyXmlWrapper& joint : body.getChildren("joint")) {
      std::string word = "fixed";
      mjcf::LoadFromMjcf::getParameter(defaults, joint, "joint", "type", word);
      moving = moving || mjcf::isMovableJointWord(word);
    }
    if (body.getChildren("body").empty() && !moving) {
      Mat<3, 3> rot;
      Mat<3, 1> pos{0.0, 0.0, 0.0};
      mjcf::LoadFromMjcf::getMjcfOrientation(body, rot, compiler.eulerseq, compiler.angle);
      xml::readVectorIfExists(body, "pos", pos);
      for (const VorSimTinyXmlWrapper& geom : body.getChildren("geom")) {
        SingleBodyObject* object = addMjcfGeom(geom, defaults, assets, compiler, rot, pos, &body, directory);
        std::string geomName;
        if (object && !geom.getAttributeIfExists("name", geomName)) object->setName(name);
      }
      continue;
    }

    ArticulatedSystemOption option;
    option.ignoreParentCollision = true;
    ArticulatedSystem* system = addArticulatedSystem(body, directory, defaults, assets, compiler, option);
    system->setName(name);
    std::vector<PinConstraintDefinition> own;
    for (EqualityPin& pin : pins)
      if (hasBodyNamed(*system, pin.definition.body1) && hasBodyNamed(*system, pin.definition.body2)) {
        own.push_back(pin.definition);
        pin.used = true;
      }
    if (!own.empty()) {
      system->addConstraints(own, system->getGeneralizedCoordinate());
      system->initializeConstraints();
    }
  }
  for (const EqualityPin& pin : pins)
    if (!pin.used)
      pin.element.errorMessage("Equality constraints - unknown body name: no articulated system has both \"" +
                               pin.definition.body1 + "\" and \"" + pin.definition.body2 + "\"");
}

ArticulatedSystem* World::addArticulatedSystem(const VorSimTinyXmlWrapper& body, const std::string& resourceDir,
                                               const mjcf::DefaultMap& defaults, const mjcf::MjcfAssets& assets,
                                               const mjcf::MjcfCompilerSetting& compiler,
                                               ArticulatedSystemOption option) {
  ++configurationNumber_;
  auto* system = new ArticulatedSystem(body, resourceDir, defaults, assets, compiler, option);
  return registerArticulatedSystem(system, 1, kAllBits);
}

SingleBodyObject* World::addMjcfGeom(const VorSimTinyXmlWrapper& element, const mjcf::DefaultMap& defaults,
                                     const mjcf::MjcfAssets& assets, const mjcf::MjcfCompilerSetting& compiler,
                                     const Mat<3, 3>& parentRotation, const Mat<3, 1>& parentPosition,
                                     const VorSimTinyXmlWrapper* bodyElement, const std::string& directory) {
  mjcf::MjcfGeom g;
  if (!mjcf::LoadFromMjcf::readGeom(defaults, assets, compiler, element, "geom", true, g)) return nullptr;
  mjcf::Pose parent;
  parent.R = parentRotation;
  parent.p = parentPosition;
  const mjcf::Pose P = mjcf::compose(parent, g.pose);

  if (g.isPlane) {
    Ground* ground = addGround(P.p[2], g.collisionMaterial, g.conaffinity);
    setCollisionBits(ground->getCollisionObject(), g.contype, g.conaffinity);
    if (!g.name.empty()) ground->setName(g.name);
    return ground;
  }

  // The mass: from the body's inertial, else from the density.
  double mass = 0.0;
  Mat<3, 3> inertia;
  bool givenInertia = false;
  const auto inertials = bodyElement ? bodyElement->getChildren("inertial") : std::vector<VorSimTinyXmlWrapper>();
  if (!inertials.empty()) {
    const VorSimTinyXmlWrapper& in = inertials[0];
    mass = xml::readNumber(in, "mass");
    Body b;
    Mat<6, 1> full;
    Mat<3, 1> diagonal;
    if (xml::readVectorIfExists(in, "fullinertia", full))
      b.setInertiaMjcfOrder(full);
    else if (xml::readVectorIfExists(in, "diaginertia", diagonal))
      b.setInertia(diagonal);
    else
      in.errorMessage(
          "Inertia is not defined. \"inertial\" tag must have either \"fullinertia\" or \"diaginertia\" attribute");
    inertia = b.inertia;
    givenInertia = true;
  } else if (g.shape != Shape::Mesh) {
    getInertialAssumingUniformDensity(g.shape, g.size, Mat<3, 3>::getIdentity(), g.density, mass, inertia);
  }

  SingleBodyObject* object = nullptr;
  const std::string& material = g.collisionMaterial;
  switch (g.shape) {
    case Shape::Box:
      object = addBox(g.size[0], g.size[1], g.size[2], mass, material, g.contype, g.conaffinity);
      break;
    case Shape::Sphere:
      object = addSphere(g.size[0], mass, material, g.contype, g.conaffinity);
      break;
    case Shape::Cylinder:
      object = addCylinder(g.size[0], g.size[1], mass, material, g.contype, g.conaffinity);
      break;
    case Shape::Capsule:
      object = addCapsule(g.size[0], g.size[1], mass, material, g.contype, g.conaffinity);
      break;
    case Shape::Mesh: {
      if (g.scale[0] != g.scale[1] || g.scale[0] != g.scale[2]) {
        element.errorMessage("a mesh geom outside a robot takes one scale for all three axes");
        return nullptr;
      }
      const std::string file = findFile(g.meshFile, directory);
      if (file.empty()) {
        element.errorMessage(g.meshFile + " is not found.");
        return nullptr;
      }
      if (!givenInertia) {
        // The mass of the closed mesh at the geom's density.
        std::vector<float> vertices;
        std::vector<uint32_t> indices;
        Mesh::loadObj(file, vertices, indices, g.scale[0]);
        Mat<3, 1> com;
        mass = g.density * Mesh::massPropertiesOfClosedMesh(vertices, indices, 1.0, inertia, com);
      }
      object = addMesh(file, mass, g.scale[0], material, g.contype, g.conaffinity);
      break;
    }
    default:
      return nullptr;
  }
  if (givenInertia) object->setInertia(inertia);
  Mat<4, 1> q;
  rotMatToQuat(P.R, q);
  q /= q.norm();
  object->setOrientation(q);
  object->setPosition(P.p);
  if (!g.name.empty()) object->setName(g.name);
  return object;
}

}  // namespace vorsim
