// The URDF reader: fills the root Child of an ArticulatedSystem from a file or
// from text. Beyond the published format it knows capsule geometry,
// rotor_inertia and spring_mount on joints, a constraints element (pins and
// their nominal configuration), spherical joints with a cone limit, a
// "sensor" attribute that takes a link's content from a sensor set file, and
// sensor elements on links.
#ifndef VORSIM_INTERNAL_URDFLOADER2_HPP
#define VORSIM_INTERNAL_URDFLOADER2_HPP

#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vorsim/VorSimTinyXmlWrapper.hpp"
#include "vorsim/math.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {
namespace urdf {

struct UrdfMaterial {
  std::string name;
  Mat<4, 1> color{0.7, 0.7, 0.7, 1.0};
};

struct UrdfJoint {
  std::string name;
  std::string parentLink;
  std::string childLink;
  Joint::Type type = Joint::FIXED;
  Mat<3, 1> originPos{0.0, 0.0, 0.0};
  Mat<3, 3> originRot = Mat<3, 3>::getIdentity();
  Mat<3, 1> axis{1.0, 0.0, 0.0};
  double lower = -std::numeric_limits<double>::max();
  double upper = std::numeric_limits<double>::max();
  double damping = 0.0;
  double friction = 0.0;
  double stiffness = 0.0;
  double rotorInertia = 0.0;
  double effort = -1.0;
  double velocity = 1e6;
  Mat<4, 1> springMount{0.0, 0.0, 0.0, 0.0};
};

// One visual or collision element.
struct UrdfBody {
  Shape::Type shape = Shape::NotShape;
  std::string meshFile;
  Mat<3, 1> originPos{0.0, 0.0, 0.0};
  Mat<3, 3> originRot = Mat<3, 3>::getIdentity();
  Mat<3, 1> scale{1.0, 1.0, 1.0};
  Mat<4, 1> shapeParam{0.0, 0.0, 0.0, 0.0};
  Mat<4, 1> color{0.7, 0.7, 0.7, 1.0};
  std::string materialName;
  std::string contactMaterialName;
  std::string linkName;
};

struct UrdfLink {
  std::string name;
  UrdfJoint joint;  // the joint that leads here; its name is empty for a link without a parent
  UrdfLink* parent = nullptr;
  std::vector<UrdfLink*> children;
  std::vector<UrdfBody> visuals;
  std::vector<UrdfBody> collisions;
  Mat<3, 1> inertialPos{0.0, 0.0, 0.0};
  Mat<3, 3> inertialRot = Mat<3, 3>::getIdentity();
  double mass = 0.0;
  Mat<3, 3> inertia{};
  std::vector<std::shared_ptr<Sensor>> sensors;
  size_t elementIndex = 0;  // position of its element among the file's links
};

// The "type" attribute; an unknown word is the fatal message "currently only
// support revolute/prismatic/fixed joint/spherical".
void getJointType(const VorSimTinyXmlWrapper& element, UrdfJoint& joint);
// The "xyz" attribute, if present.
void getPosition(const VorSimTinyXmlWrapper& element, Mat<3, 1>& pos);
// The first present of "quat" (w x y z, normalised), "rpy" (Rz Ry Rx),
// "axisangle" (axis, angle) and "zaxis"; with none the matrix stays.
void getOrientation(const VorSimTinyXmlWrapper& element, Mat<3, 3>& rot);
// The first "inertia" child, if any: ixx, iyy, izz required, the rest optional.
void getInertia(const VorSimTinyXmlWrapper& element, Mat<3, 3>& inertia);
// A visual or collision element.
void processBody(const VorSimTinyXmlWrapper& element, UrdfBody& body, std::map<std::string, UrdfMaterial>& materials);
// The first child of a geometry element.
void geometry2body(const VorSimTinyXmlWrapper& element, UrdfBody& body);

// Reads the description in its constructor; the object is thrown away at once.
class LoadFromURDF2 {
 public:
  // fileOrText is a path, or URDF text if it holds '<'. jointOrder names joints
  // to come first among their siblings; the rest follow in file order.
  LoadFromURDF2(ArticulatedSystem& system, std::string const& fileOrText, std::vector<std::string> jointOrder,
                bool fromFile);

  void processLinkFromUrdf(UrdfLink const& link, Child& node, std::vector<std::string> const& jointOrder);

 private:
  void readLink(const VorSimTinyXmlWrapper& element);
  void readLinkContent(const VorSimTinyXmlWrapper& element, UrdfLink& link);
  void readJoint(const VorSimTinyXmlWrapper& element);
  void readMaterial(const VorSimTinyXmlWrapper& element);
  void readConstraints(const VorSimTinyXmlWrapper& element);
  void readSensor(const VorSimTinyXmlWrapper& element, UrdfLink& link);
  // Parent and child of every joint; false after a fatal message.
  bool connectLinks();
  // The link without a parent; null after a fatal message.
  UrdfLink* findRoot();
  std::string sensorFileFor(const VorSimTinyXmlWrapper& element, const std::string& value) const;

  ArticulatedSystem& system_;
  std::string directory_;  // where sensor set files are searched
  std::vector<UrdfLink> links_;
  std::vector<UrdfJoint> joints_;
  std::vector<VorSimTinyXmlWrapper> jointElements_;
  std::vector<VorSimTinyXmlWrapper> linkElements_;
  std::map<std::string, UrdfMaterial> materials_;
  std::vector<std::string> jointOrder_;
  std::vector<PinConstraintDefinition> pins_;
  VecDyn nominalConfig_;
};

}  // namespace urdf
}  // namespace vorsim

#endif  // VORSIM_INTERNAL_URDFLOADER2_HPP
