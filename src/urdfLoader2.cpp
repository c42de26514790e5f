#include "urdfLoader2.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>

#include "vorsim/Path.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/sensors/DepthCamera.hpp"
#include "vorsim/sensors/InertialMeasurementUnit.hpp"
#include "vorsim/sensors/RGBSensor.hpp"
#include "vorsim/sensors/SpinningLidar.hpp"

namespace vorsim {
namespace urdf {

namespace {

// Numbers are read strictly: text that is not a number, in full, is a located
// fatal message rather than a silent zero.
bool parseDouble(const std::string& text, double& out) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(begin, &end);
  if (end == begin || errno == ERANGE) return false;
  while (*end == ' ' || *end == '\t' || *end == '\n' || *end == '\r') ++end;
  if (*end != '\0') return false;
  out = value;
  return true;
}

bool readNumberIfExists(const VorSimTinyXmlWrapper& e, const std::string& attribute, double& out) {
  std::string text;
  if (!e.getAttributeIfExists(attribute, text)) return false;
  double value;
  if (!parseDouble(text, value)) {
    e.errorMessage("the attribute '" + attribute + "' is not a number: '" + text + "'");
    return false;
  }
  out = value;
  return true;
}

double readNumber(const VorSimTinyXmlWrapper& e, const std::string& attribute) {
  double value = 0.0;
  const std::string text = e.getAttributeMust<std::string>(attribute);
  if (!parseDouble(text, value)) e.errorMessage("the attribute '" + attribute + "' is not a number: '" + text + "'");
  return value;
}

int readInt(const VorSimTinyXmlWrapper& e, const std::string& attribute) {
  const double value = readNumber(e, attribute);
  if (value != std::floor(value) || std::abs(value) > 2147483647.0)
    e.errorMessage("the attribute '" + attribute + "' is not an integer");
  return static_cast<int>(value);
}

template <size_t n>
bool readVectorIfExists(const VorSimTinyXmlWrapper& e, const std::string& attribute, Mat<n, 1>& out) {
  try {
    return e.getAttributeIfExists(attribute, out);
  } catch (const std::logic_error&) {  // std::stod's invalid_argument and out_of_range
    std::string text;
    e.getAttributeIfExists(attribute, text);
    e.errorMessage("the attribute '" + attribute + "' holds text that is not a number: '" + text + "'");
    return false;
  }
}

template <size_t n>
Mat<n, 1> readVector(const VorSimTinyXmlWrapper& e, const std::string& attribute) {
  Mat<n, 1> value;
  value.setZero();
  std::string text;
  if (!e.getAttributeIfExists(attribute, text)) {
    e.getAttributeMust<std::string>(attribute);  // the located "does not contain an attribute" message
    return value;
  }
  readVectorIfExists(e, attribute, value);
  return value;
}

VorSimTinyXmlWrapper firstChild(const VorSimTinyXmlWrapper& e, const std::string& name) {
  auto children = e.getChildrenMust(name);
  return children.empty() ? VorSimTinyXmlWrapper() : children[0];
}

bool fileExists(const std::string& path) {
  std::ifstream f(path);
  return f.good();
}

std::string join(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + Path::separator() + name;
}

}  // namespace

// ------------------------------------------------------------ free readers --

void getJointType(const VorSimTinyXmlWrapper& element, UrdfJoint& joint) {
  const std::string type = element.getAttributeMust<std::string>("type");
  if (type == "revolute" || type == "continuous")
    joint.type = Joint::REVOLUTE;
  else if (type == "prismatic")
    joint.type = Joint::PRISMATIC;
  else if (type == "spherical")
    joint.type = Joint::SPHERICAL;
  else if (type == "fixed")
    joint.type = Joint::FIXED;
  else if (type == "floating")
    joint.type = Joint::FLOATING;
  else
    element.errorMessage("currently only support revolute/prismatic/fixed joint/spherical");
}

void getPosition(const VorSimTinyXmlWrapper& element, Mat<3, 1>& pos) { readVectorIfExists(element, "xyz", pos); }

void getOrientation(const VorSimTinyXmlWrapper& element, Mat<3, 3>& rot) {
  Mat<4, 1> q;
  Mat<3, 1> v;
  if (readVectorIfExists(element, "quat", q)) {
    const double n = q.norm();
    for (size_t k = 0; k < 4; ++k) q[k] /= n;
    quatToRotMat(q, rot);
  } else if (readVectorIfExists(element, "rpy", v)) {
    const double cr = std::cos(v[0]), sr = std::sin(v[0]);
    const double cp = std::cos(v[1]), sp = std::sin(v[1]);
    const double cy = std::cos(v[2]), sy = std::sin(v[2]);
    // Rz(yaw) Ry(pitch) Rx(roll)
    rot(0, 0) = cy * cp;
    rot(0, 1) = cy * sp * sr - sy * cr;
    rot(0, 2) = cy * sp * cr + sy * sr;
    rot(1, 0) = sy * cp;
    rot(1, 1) = sy * sp * sr + cy * cr;
    rot(1, 2) = sy * sp * cr - cy * sr;
    rot(2, 0) = -sp;
    rot(2, 1) = cp * sr;
    rot(2, 2) = cp * cr;
  } else if (readVectorIfExists(element, "axisangle", q)) {
    Mat<3, 1> axis{q[0], q[1], q[2]};
    // Rodrigues' formula needs a unit axis.
    const double n = axis.norm();
    if (n > 0.0) axis /= n;
    angleAxisToRotMat(axis, q[3], rot);
  } else if (readVectorIfExists(element, "zaxis", v)) {
    zaxisToRotMat(v, rot);
  }
}

void getInertia(const VorSimTinyXmlWrapper& element, Mat<3, 3>& inertia) {
  auto list = element.getChildren("inertia");
  if (list.empty()) return;
  const VorSimTinyXmlWrapper& e = list[0];
  double ixy = 0.0, ixz = 0.0, iyz = 0.0;
  inertia(0, 0) = readNumber(e, "ixx");
  inertia(1, 1) = readNumber(e, "iyy");
  inertia(2, 2) = readNumber(e, "izz");
  readNumberIfExists(e, "ixy", ixy);
  readNumberIfExists(e, "ixz", ixz);
  readNumberIfExists(e, "iyz", iyz);
  inertia(0, 1) = inertia(1, 0) = ixy;
  inertia(0, 2) = inertia(2, 0) = ixz;
  inertia(1, 2) = inertia(2, 1) = iyz;
}

void processBody(const VorSimTinyXmlWrapper& element, UrdfBody& body, std::map<std::string, UrdfMaterial>& materials) {
  auto origins = element.getChildren("origin");
  if (!origins.empty()) {
    getOrientation(origins[0], body.originRot);
    getPosition(origins[0], body.originPos);
  }
  const VorSimTinyXmlWrapper geometry = firstChild(element, "geometry");
  if (geometry.isDummy()) return;
  auto shapes = geometry.getChildrenMust();
  if (shapes.empty()) return;
  geometry2body(shapes[0], body);

  auto materialList = element.getChildren("material");
  if (materialList.empty()) {
    body.materialName.clear();
    return;
  }
  const VorSimTinyXmlWrapper& m = materialList[0];
  body.materialName = m.getAttributeMust<std::string>("name");
  UrdfMaterial& entry = materials[body.materialName];
  entry.name = body.materialName;
  auto colors = m.getChildren("color");
  if (!colors.empty() && readVectorIfExists(colors[0], "rgba", body.color)) entry.color = body.color;
  auto contacts = m.getChildren("contact");
  if (!contacts.empty()) body.contactMaterialName = contacts[0].getAttributeMust<std::string>("name");
}

void geometry2body(const VorSimTinyXmlWrapper& element, UrdfBody& body) {
  const std::string kind = element.getName();
  body.shapeParam.setZero();
  if (kind == "box") {
    const Mat<3, 1> size = readVector<3>(element, "size");
    body.shape = Shape::Box;
    body.shapeParam = {size[0], size[1], size[2], 0.0};
  } else if (kind == "mesh") {
    body.shape = Shape::Mesh;
    body.meshFile = element.getAttributeMust<std::string>("filename");
    body.scale = {1.0, 1.0, 1.0};
    readVectorIfExists(element, "scale", body.scale);
    body.shapeParam = {body.scale[0], body.scale[1], body.scale[2], 0.0};
  } else if (kind == "cylinder" || kind == "capsule") {
    body.shape = kind == "cylinder" ? Shape::Cylinder : Shape::Capsule;
    body.shapeParam[0] = readNumber(element, "radius");
    body.shapeParam[1] = readNumber(element, "length");
  } else if (kind == "sphere") {
    body.shape = Shape::Sphere;
    body.shapeParam[0] = readNumber(element, "radius");
  } else {
    body.shape = Shape::NotShape;
    element.errorMessage(kind + " unrecognized shape: \"" + kind + "\"");
  }
}

// ------------------------------------------------------------------ loader --

LoadFromURDF2::LoadFromURDF2(ArticulatedSystem& system, std::string const& fileOrText,
                             std::vector<std::string> jointOrder, bool /*fromFile*/)
    : system_(system), jointOrder_(std::move(jointOrder)) {
  const bool isText = fileOrText.find('<') != std::string::npos;
  // Sensor set files are looked up next to the description; text has no
  // location of its own, so its file's (if known) or the resource directory
  // stands in.
  if (!isText)
    directory_ = Path(fileOrText).getDirectory().getString();
  else if (!system.robotFilePath.empty())
    directory_ = Path(system.robotFilePath).getDirectory().getString();
  else
    directory_ = system.resourceDir;

  const VorSimTinyXmlWrapper robot(fileOrText, "robot");
  if (robot.isDummy()) return;
  const std::vector<VorSimTinyXmlWrapper> elements = robot.getChildren();
  size_t linkCount = 0;
  for (const auto& e : elements) linkCount += e.getName() == "link";
  links_.reserve(linkCount);  // links are found by pointer once all are read

  bool haveConstraints = false;
  for (const VorSimTinyXmlWrapper& e : elements) {
    const std::string kind = e.getName();
    if (kind == "link") {
      readLink(e);
    } else if (kind == "joint") {
      readJoint(e);
    } else if (kind == "material") {
      readMaterial(e);
    } else if (kind == "constraints") {
      readConstraints(e);
      haveConstraints = true;
    }
  }

  if (joints_.size() != jointOrder_.size()) {
    MSG_FATAL("given joint names are not found in the file");
    return;
  }
  if (!connectLinks()) return;
  UrdfLink* root = findRoot();
  if (root == nullptr) return;

  Child rootNode;
  if (root->name == "world") {
    if (root->children.empty()) {
      linkElements_[root->elementIndex].errorMessage("the link \"world\" has no child: there is no robot to fix to it");
      return;
    }
    // The base is fixed where the last joint from "world" puts it; only the
    // first link under "world" is the robot.
    rootNode.type = Joint::FIXED;
    for (size_t j = 0; j < joints_.size(); ++j) {
      if (joints_[j].parentLink != "world") continue;
      rootNode.rot = joints_[j].originRot;
      rootNode.pos = joints_[j].originPos;
      if (joints_[j].type != Joint::FIXED)
        MSG_WARN("joint \"" << joints_[j].name
                            << "\" connects the robot to \"world\": the base is fixed at its origin and the joint "
                               "does not move");
    }
    for (size_t k = 1; k < root->children.size(); ++k)
      MSG_WARN("link \"" << root->children[k]->name << "\" also hangs from \"world\" and is left out: only \""
                         << root->children[0]->name << "\" is simulated");
    UrdfLink* base = root->children[0];
    system_.baseJointPos = base->joint.originPos;
    system_.baseJointRot = base->joint.originRot;
    processLinkFromUrdf(*base, rootNode, jointOrder_);
  } else {
    rootNode.type = Joint::FLOATING;
    processLinkFromUrdf(*root, rootNode, jointOrder_);
  }
  system_.child.clear();
  system_.child.push_back(std::move(rootNode));

  (void)haveConstraints;
  system_.addConstraints(pins_, nominalConfig_);
}

void LoadFromURDF2::readLink(const VorSimTinyXmlWrapper& element) {
  UrdfLink link;
  link.name = element.getAttributeMust<std::string>("name");
  for (size_t i = 0; i < links_.size(); ++i)
    if (links_[i].name == link.name) {
      element.errorMessage("a link named \"" + link.name + "\" is defined twice");
      return;
    }
  link.elementIndex = linkElements_.size();
  linkElements_.push_back(element);

  std::string sensorFile;
  if (element.getAttributeIfExists("sensor", sensorFile)) {
    const std::string path = sensorFileFor(element, sensorFile);
    if (path.empty()) return;
    if (!element.getChildren().empty()) {
      element.errorMessage("Sensor link parameters should be defined in the sensor XML file");
      return;
    }
    const VorSimTinyXmlWrapper sensorSet(path, "sensor_set");
    if (sensorSet.isDummy()) return;
    const VorSimTinyXmlWrapper content = firstChild(sensorSet, "link");
    if (content.isDummy()) return;
    readLinkContent(content, link);
  } else {
    readLinkContent(element, link);
  }
  links_.push_back(std::move(link));
}

std::string LoadFromURDF2::sensorFileFor(const VorSimTinyXmlWrapper& element, const std::string& value) const {
  const std::string candidates[] = {join(directory_, value), join(join(directory_, "sensor"), value),
                                    join(join(directory_, "sensors"), value), join(join(directory_, ".."), value),
                                    join(join(join(directory_, ".."), "sensors"), value)};
  for (const std::string& c : candidates)
    if (fileExists(c)) return c;
  element.errorMessage("Could not find file: " + value);
  return std::string();
}

void LoadFromURDF2::readLinkContent(const VorSimTinyXmlWrapper& element, UrdfLink& link) {
  for (const VorSimTinyXmlWrapper& c : element.getChildren()) {
    const std::string kind = c.getName();
    if (kind == "visual" || kind == "collision") {
      UrdfBody body;
      body.linkName = link.name;
      processBody(c, body, materials_);
      (kind == "visual" ? link.visuals : link.collisions).push_back(body);
    } else if (kind == "inertial") {
      auto origins = c.getChildren("origin");
      if (!origins.empty()) {
        getOrientation(origins[0], link.inertialRot);
        getPosition(origins[0], link.inertialPos);
      }
      const VorSimTinyXmlWrapper mass = firstChild(c, "mass");
      if (!mass.isDummy() && readNumberIfExists(mass, "value", link.mass) && !(link.mass >= 0.0))
        mass.errorMessage("the mass of link \"" + link.name + "\" must not be negative");
      getInertia(c, link.inertia);
    } else if (kind == "sensor") {
      readSensor(c, link);
    }
  }
}

void LoadFromURDF2::readJoint(const VorSimTinyXmlWrapper& element) {
  UrdfJoint joint;
  joint.name = element.getAttributeMust<std::string>("name");
  bool listed = false;
  for (const std::string& n : jointOrder_) listed = listed || n == joint.name;
  if (!listed) jointOrder_.push_back(joint.name);

  getJointType(element, joint);
  if (joint.type != Joint::FIXED && joint.type != Joint::SPHERICAL) {
    auto axes = element.getChildren("axis");
    if (axes.empty()) {
      element.errorMessage("joint \"" + joint.name + "\" needs an axis element");
      return;
    }
    joint.axis = readVector<3>(axes[0], "xyz");
    if (joint.axis.norm() == 0.0) {
      axes[0].errorMessage("the axis of joint \"" + joint.name + "\" has zero length");
      return;
    }
  }
  joint.parentLink = firstChild(element, "parent").getAttributeMust<std::string>("link");
  joint.childLink = firstChild(element, "child").getAttributeMust<std::string>("link");

  auto origins = element.getChildren("origin");
  if (!origins.empty()) joint.originPos = readVector<3>(origins[0], "xyz");

  auto limits = element.getChildren("limit");
  if (!limits.empty()) {
    const VorSimTinyXmlWrapper& l = limits[0];
    if (joint.type == Joint::SPHERICAL) {
      if (!readNumberIfExists(l, "lower", joint.lower)) {
        l.errorMessage("Spherical joint needs the attribute \"lower\" to have a limit.");
        return;
      }
      if (joint.lower < 0.0) {
        l.errorMessage("Spherical joint cannot have negative limit");
        return;
      }
    } else {
      readNumberIfExists(l, "lower", joint.lower);
      readNumberIfExists(l, "upper", joint.upper);
      if (joint.lower > joint.upper) {
        l.errorMessage(
            "Lower joint limit cannot be higher than the upper one. If you want to disable the joint limit, remove "
            "\"lower\" and \"upper\" attributes.");
        return;
      }
    }
    readNumberIfExists(l, "effort", joint.effort);
    readNumberIfExists(l, "velocity", joint.velocity);
  }
  if (!origins.empty()) getOrientation(origins[0], joint.originRot);

  auto dynamics = element.getChildren("dynamics");
  if (!dynamics.empty()) {
    const VorSimTinyXmlWrapper& d = dynamics[0];
    readNumberIfExists(d, "damping", joint.damping);
    readNumberIfExists(d, "friction", joint.friction);
    readNumberIfExists(d, "stiffness", joint.stiffness);
    readNumberIfExists(d, "rotor_inertia", joint.rotorInertia);
    if (joint.type == Joint::SPHERICAL)
      readVectorIfExists(d, "spring_mount", joint.springMount);
    else
      readNumberIfExists(d, "spring_mount", joint.springMount[0]);
  }
  if (!element.getChildren("mimic").empty())
    MSG_WARN("joint \"" << joint.name << "\" has a mimic element, which is not simulated: the joint moves on its own");

  joints_.push_back(joint);
  jointElements_.push_back(element);
}

void LoadFromURDF2::readMaterial(const VorSimTinyXmlWrapper& element) {
  const std::string name = element.getAttributeMust<std::string>("name");
  UrdfMaterial& entry = materials_[name];
  entry.name = name;
  auto colors = element.getChildren("color");
  if (!colors.empty()) entry.color = readVector<4>(colors[0], "rgba");
}

void LoadFromURDF2::readConstraints(const VorSimTinyXmlWrapper& element) {
  // VecDyn assignment copies by the destination's length: size it first.
  const VecDyn config = element.getAttributeMust<VecDyn>("nominal_config");
  nominalConfig_.resize(config.n);
  nominalConfig_ = config;
  for (const VorSimTinyXmlWrapper& pin : element.getChildren("pin")) {
    PinConstraintDefinition d;
    d.anchor = readVector<3>(pin, "anchor");
    d.body1 = pin.getAttributeMust<std::string>("body1");
    d.body2 = pin.getAttributeMust<std::string>("body2");
    pins_.push_back(d);
  }
}

void LoadFromURDF2::readSensor(const VorSimTinyXmlWrapper& element, UrdfLink& link) {
  const std::string type = element.getAttributeMust<std::string>("type");
  const std::string name = element.getAttributeMust<std::string>("name");
  const double rate = readNumber(element, "update_rate");
  if (rate < 0.0) {
    element.errorMessage("the update_rate of sensor \"" + name + "\" must not be negative");
    return;
  }
  Mat<3, 1> pos{0.0, 0.0, 0.0};
  Mat<3, 3> rot = Mat<3, 3>::getIdentity();
  auto origins = element.getChildren("origin");
  if (!origins.empty()) {
    getOrientation(origins[0], rot);
    getPosition(origins[0], pos);
  }
  const std::string fullName = link.name + ":" + name;

  std::shared_ptr<Sensor> sensor;
  auto readCamera = [&](auto& prop) {
    prop.name = fullName;
    const VorSimTinyXmlWrapper camera = firstChild(element, "camera");
    if (camera.isDummy()) return false;
    prop.hFOV = readNumber(camera, "horizontal_fov");
    const VorSimTinyXmlWrapper image = firstChild(camera, "image");
    const VorSimTinyXmlWrapper clip = firstChild(camera, "clip");
    const VorSimTinyXmlWrapper noise = firstChild(camera, "noise");
    if (image.isDummy() || clip.isDummy() || noise.isDummy()) return false;
    prop.width = readInt(image, "width");
    prop.height = readInt(image, "height");
    if (prop.width < 0 || prop.height < 0) {
      image.errorMessage("the image of sensor \"" + name + "\" must not have a negative size");
      return false;
    }
    if (!(prop.hFOV > 0.0 && prop.hFOV < M_PI)) {
      camera.errorMessage("the horizontal_fov of sensor \"" + name + "\" must lie between 0 and pi radians");
      return false;
    }
    prop.clipNear = readNumber(clip, "near");
    prop.clipFar = readNumber(clip, "far");
    prop.noiseType = stringToNoiseType(noise.getAttributeMust<std::string>("type"));
    prop.mean = readNumber(noise, "mean");
    prop.std = readNumber(noise, "stddev");
    return true;
  };

  if (type == "depth") {
    firstChild(element, "data");  // required, and none of its attributes is read
    DepthCamera::DepthCameraProperties prop;
    if (!readCamera(prop)) return;
    sensor = std::make_shared<DepthCamera>(prop, &system_, pos, rot);
  } else if (type == "rgb") {
    RGBCamera::RGBCameraProperties prop;
    if (!readCamera(prop)) return;
    sensor = std::make_shared<RGBCamera>(prop, &system_, pos, rot);
  } else if (type == "imu") {
    InertialMeasurementUnit::ImuProperties prop;
    prop.name = fullName;
    auto limits = element.getChildren("limit");
    if (!limits.empty()) {
      prop.maxAcc = readNumber(limits[0], "acc_limit");
      prop.maxAngVel = readNumber(limits[0], "ang_vel_limit");
    }
    sensor = std::make_shared<InertialMeasurementUnit>(prop, &system_, pos, rot);
    system_.imuPresent = true;
  } else if (type == "spinning_lidar") {
    SpinningLidar::SpinningLidarProperties prop;
    prop.name = fullName;
    const VorSimTinyXmlWrapper yaw = firstChild(element, "yaw");
    const VorSimTinyXmlWrapper pitch = firstChild(element, "pitch");
    const VorSimTinyXmlWrapper range = firstChild(element, "range");
    const VorSimTinyXmlWrapper spin = firstChild(element, "spin");
    if (yaw.isDummy() || pitch.isDummy() || range.isDummy() || spin.isDummy()) return;
    prop.yawSamples = readInt(yaw, "samples");
    prop.pitchSamples = readInt(pitch, "samples");
    if (prop.yawSamples < 1 || prop.pitchSamples < 1) {
      element.errorMessage("the lidar \"" + name + "\" needs at least one yaw and one pitch sample");
      return;
    }
    prop.pitchMinAngle = readNumber(pitch, "min_angle");
    prop.pitchMaxAngle = readNumber(pitch, "max_angle");
    prop.rangeMin = readNumber(range, "min");
    prop.rangeMax = readNumber(range, "max");
    prop.spinDirection = spin.getAttributeMust<std::string>("direction") == "clockwise" ? -1 : 1;
    prop.spinRate = readNumber(spin, "rate");
    sensor = std::make_shared<SpinningLidar>(prop, &system_, pos, rot);
  } else {
    element.errorMessage("Sensor type '" + type +
                         "' is not supported. Only 'imu', 'rgb', 'spinning_lidar' and 'depth' are supported.");
    return;
  }
  sensor->setUpdateRate(rate);
  link.sensors.push_back(sensor);
}

bool LoadFromURDF2::connectLinks() {
  auto findLink = [this](const std::string& name) -> UrdfLink* {
    for (UrdfLink& l : links_)
      if (l.name == name) return &l;
    return nullptr;
  };
  for (size_t j = 0; j < joints_.size(); ++j) {
    const UrdfJoint& joint = joints_[j];
    const VorSimTinyXmlWrapper& element = jointElements_[j];
    UrdfLink* parentLink = findLink(joint.parentLink);
    if (parentLink == nullptr) {
      element.errorMessage("link named \"" + joint.parentLink +
                           "\" does not exist. It was defined as a parent of joint \"" + joint.name + "\"");
      return false;
    }
    UrdfLink* childLink = findLink(joint.childLink);
    if (childLink == nullptr) {
      element.errorMessage("link named \"" + joint.childLink +
                           "\" does not exist. It was defined as a child of joint \"" + joint.name + "\"");
      return false;
    }
    if (childLink->parent != nullptr) {
      element.errorMessage("link \"" + childLink->name + "\" has two parents: joint \"" + childLink->joint.name +
                           "\" and joint \"" + joint.name + "\"");
      return false;
    }
    parentLink->children.push_back(childLink);
    childLink->joint = joint;
    childLink->parent = parentLink;
  }
  return true;
}

UrdfLink* LoadFromURDF2::findRoot() {
  UrdfLink* root = nullptr;
  for (UrdfLink& l : links_) {
    if (l.parent != nullptr) continue;
    if (root != nullptr) {
      linkElements_[l.elementIndex].errorMessage("the description has two root links, \"" + root->name + "\" and \"" +
                                                 l.name + "\": every link but one needs a parent joint");
      return nullptr;
    }
    root = &l;
  }
  if (root == nullptr) {
    MSG_FATAL("The description has no root link: every link has a parent, so its joints form a cycle");
    return nullptr;
  }
  // Each link has at most one parent and only the root has none, so a link
  // the root cannot reach lies on a cycle.
  std::vector<const UrdfLink*> stack{root};
  size_t reached = 0;
  std::vector<bool> seen(links_.size(), false);
  while (!stack.empty()) {
    const UrdfLink* l = stack.back();
    stack.pop_back();
    seen[size_t(l - links_.data())] = true;
    ++reached;
    for (const UrdfLink* c : l->children) stack.push_back(c);
  }
  if (reached != links_.size()) {
    for (size_t i = 0; i < links_.size(); ++i) {
      if (seen[i]) continue;
      linkElements_[links_[i].elementIndex].errorMessage("link \"" + links_[i].name +
                                                         "\" is not connected to the root: its joints form a cycle");
      return nullptr;
    }
  }
  return root;
}

void LoadFromURDF2::processLinkFromUrdf(UrdfLink const& link, Child& node, std::vector<std::string> const& jointOrder) {
  node.bodyName = link.name;
  if (link.parent != nullptr) {
    node.name = link.joint.name;
    node.parentName = link.parent->name;
  } else {
    node.name.clear();
    node.parentName.clear();
  }

  if (link.mass == 0.0) {
    node.mass = 0.0;
    node.com.setZero();
    node.inertia.setZero();
  } else {
    node.mass = link.mass;
    node.com = link.inertialPos;
    similarityTransform(link.inertialRot, link.inertia, node.inertia);
  }
  node.sensors = link.sensors;

  for (size_t k = 0; k < link.collisions.size(); ++k) {
    const UrdfBody& b = link.collisions[k];
    node.collisionBodies.emplace_back(b.shape, b.shapeParam, b.originPos, b.originRot, b.scale,
                                      link.name + "/" + std::to_string(k), b.contactMaterialName, b.materialName,
                                      b.meshFile);
  }
  for (const UrdfBody& b : link.visuals) {
    Mat<4, 1> color{0.7, 0.7, 0.7, 1.0};
    if (b.materialName.empty()) {
      color = b.color;
    } else {
      auto it = materials_.find(b.materialName);
      if (it != materials_.end()) color = it->second.color;
    }
    // Colours written in 0..255 are brought to 0..1.
    if (color[0] + color[1] + color[2] + color[3] > 4.1) color /= 255.0;
    node.addVisualObject(b.shape, b.shapeParam, b.originPos, b.originRot, color, b.scale, b.meshFile, link.name,
                         b.materialName);
  }

  // Siblings in the caller's joint order, then in file order.
  std::vector<size_t> order;
  for (const std::string& name : jointOrder)
    for (size_t c = 0; c < link.children.size(); ++c)
      if (link.children[c]->joint.name == name) order.push_back(c);

  for (size_t c : order) {
    const UrdfLink& childLink = *link.children[c];
    const UrdfJoint& joint = childLink.joint;
    std::vector<Child>& list = joint.type == Joint::FIXED ? node.fixedBodies : node.child;
    list.emplace_back();
    Child& next = list.back();
    next.type = joint.type;
    next.rot = joint.originRot;
    next.axis = joint.axis / joint.axis.norm();
    next.pos = joint.originPos;
    next.limit = {joint.lower, joint.upper};
    next.effort = joint.effort;
    next.damping = joint.damping;
    next.friction = joint.friction;
    next.stiffness = joint.stiffness;
    next.rotorInertia = joint.rotorInertia;
    next.velocityLimit = joint.velocity;
    next.springMount = joint.springMount;
    processLinkFromUrdf(childLink, next, jointOrder);
  }

  if (order.size() != node.child.size() + node.fixedBodies.size())
    MSG_FATAL("The URDF reader has an internal error: the children of link \""
              << link.name << "\" could not be ordered. Please report this, with the file, to the vorsim maintainers.");
}

}  // namespace urdf
}  // namespace vorsim
