// The MJCF reader: the parts of a file that every body shares (defaults,
// compiler settings, assets), the geom description that both single bodies and
// robots use, and LoadFromMjcf, which fills the Child tree of one articulated
// body.
//
// Frames. A Child's body frame is its joint frame. An MJCF body's content
// (inertial, geoms, sites, sub-bodies) is written in the MJCF body's frame,
// which sits at the joint's pos inside it; everything is re-expressed in the
// joint frame, so that a joint with a pos turns the body about that point and
// leaves its geoms where the file put them.
#ifndef VORSIM_INTERNAL_MJCFLOADER_HPP
#define VORSIM_INTERNAL_MJCFLOADER_HPP

#include <string>
#include <vector>

#include "vorsim/MjcfTypes.hpp"
#include "vorsim/VorSimTinyXmlWrapper.hpp"
#include "vorsim/math.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/ArticulatedSystem/JointAndBodies.hpp"

namespace vorsim {
namespace mjcf {

// A rigid transform: points map as R x + p.
struct Pose {
  Mat<3, 3> R = Mat<3, 3>::getIdentity();
  Mat<3, 1> p{0.0, 0.0, 0.0};
};
// a then b: the pose b, given in frame a.
Pose compose(const Pose& a, const Pose& b);
Pose inverse(const Pose& a);

// "in 'FILE' at row:R col:C, the node 'NAME'": the head of located messages,
// for warnings that the XML layer's errorMessage (always fatal) cannot give.
std::string locationOf(const VorSimTinyXmlWrapper& element);

// Enters each <default class="..."> below `children` into the map under its
// class name, recursively, giving each an attribute "parent" with the name of
// its enclosing class. A nested default without a class is a located fatal
// message.
void flattenMjcfDefaults(DefaultMap& defaults, const std::vector<VorSimTinyXmlWrapper>& children,
                         const std::string& parentName);

// Moves the FIXED entries of every child vector (depth first) into
// fixedBodies: each is copied there in order, then removed from child by
// moving the last entry into its place, so the order of the movable siblings
// changes exactly as that swap makes it.
void movedFixedBodies(Child& node);

// One geom (or site) as read from the file, with its defaults resolved.
struct MjcfGeom {
  std::string typeWord = "sphere";
  Shape::Type shape = Shape::Sphere;
  bool isPlane = false;
  Mat<4, 1> size{0.0, 0.0, 0.0, 0.0};  // in Shape::Type's convention: full edges, full lengths
  Pose pose;                           // in the frame that contains the element
  Mat<4, 1> rgba{0.7, 0.7, 0.7, 1.0};
  double density = 1000.0;
  size_t contype = 1, conaffinity = 1;
  std::string material;           // visual material
  std::string collisionMaterial;  // contact material
  std::string meshFile;           // as written in the asset
  Mat<3, 1> scale{1.0, 1.0, 1.0};
  std::string name;
};

class LoadFromMjcf {
 public:
  LoadFromMjcf(const DefaultMap& defaults, const MjcfAssets& assets, const MjcfCompilerSetting& compiler)
      : defaults_(defaults), assets_(assets), compiler_(compiler) {}

  // Fills system.child[0] from one <body> of the worldbody.
  void load(ArticulatedSystem& system, const VorSimTinyXmlWrapper& body);

  // The attribute on the element, else from its class (the element's "class",
  // or "default") and that class's parents. T is double, Mat<2,1>, Mat<3,1>,
  // std::string or size_t. False (out untouched) when nothing holds it.
  template <typename T>
  static bool getParameter(const DefaultMap& defaults, const VorSimTinyXmlWrapper& element, const std::string& tag,
                           const std::string& attribute, T& out);
  template <typename T>
  static bool readFromDefault(const DefaultMap& defaults, const std::string& className, const std::string& tag,
                              const std::string& attribute, T& out, const VorSimTinyXmlWrapper& user);

  // A geom (tag "geom", planes allowed when allowPlane) or a site (tag "site")
  // with every attribute resolved. False after a fatal message.
  static bool readGeom(const DefaultMap& defaults, const MjcfAssets& assets, const MjcfCompilerSetting& compiler,
                       const VorSimTinyXmlWrapper& element, const std::string& tag, bool allowPlane, MjcfGeom& geom);

  // The orientation of an element: fromto, xyaxes, axisangle, zaxis, quat,
  // euler, the first present; identity without any.
  static void getMjcfOrientation(const VorSimTinyXmlWrapper& element, Mat<3, 3>& R, const std::string& eulerseq,
                                 const std::string& angle);
  // pos, or the midpoint of fromto; zero without either.
  static void getMjcfPos(const VorSimTinyXmlWrapper& element, Mat<3, 1>& p);
  static void posFromFromTo(const VorSimTinyXmlWrapper& element, Mat<3, 1>& p);
  // Size numbers of a shape from `sizeText` (the element's size or its
  // class's) and fromto, checked by shape and turned from half to full
  // lengths.
  static void getMjcfSizeParam(const VorSimTinyXmlWrapper& element, const std::vector<double>& sizeNumbers,
                               Shape::Type shape, Mat<4, 1>& size);

 private:
  // One <body>, recursively. `inherited` is the frame in which the element's
  // own pose is written, seen from node's parent; firstJoint > 0 continues a
  // body that was split into a chain, one joint per node.
  void processBody(Child& node, const Pose& inherited, std::string name, bool isRoot, const VorSimTinyXmlWrapper& body,
                   size_t firstJoint);
  // Reads the joint into node; false when it leaves the node FIXED.
  bool readJoint(Child& node, const VorSimTinyXmlWrapper& joint, const std::string& name, bool isRoot,
                 size_t jointCount, Pose& jointPose);
  void readContent(Child& node, const Pose& offset, const std::string& name, const VorSimTinyXmlWrapper& body);

  const DefaultMap& defaults_;
  const MjcfAssets& assets_;
  const MjcfCompilerSetting& compiler_;
  ArticulatedSystem* system_ = nullptr;
};

}  // namespace mjcf
}  // namespace vorsim

#endif  // VORSIM_INTERNAL_MJCFLOADER_HPP
