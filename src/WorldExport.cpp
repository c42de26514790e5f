// Writing a world back out as a configuration file, and a robot built in code
// as URDF. Numbers are written in their shortest exact form, so that what is
// read back is, to the bit, what was written.
#include <cmath>
#include <filesystem>
#include <fstream>

#include "helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/VorSimTinyXmlWriter.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

namespace vorsim {

namespace {

std::string absolutePath(const std::string& path) {
  if (path.empty()) return path;
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

std::string stemOf(const std::string& fileName) {
  const size_t dot = fileName.rfind('.');
  return dot == std::string::npos ? fileName : fileName.substr(0, dot);
}

bool isIdentity(const Mat<3, 3>& R) {
  for (size_t i = 0; i < 3; ++i)
    for (size_t j = 0; j < 3; ++j)
      if (R(i, j) != (i == j ? 1.0 : 0.0)) return false;
  return true;
}

// The unit quaternion (w, x, y, z) of a rotation.
Mat<4, 1> quaternionOf(const Mat<3, 3>& R) {
  Mat<4, 1> q;
  rotMatToQuat(R, q);
  q /= q.norm();
  return q;
}

// Roll, pitch and yaw with R = Rz(yaw) Ry(pitch) Rx(roll).
Mat<3, 1> rpyOf(const Mat<3, 3>& R) {
  const double cp = std::sqrt(R(0, 0) * R(0, 0) + R(1, 0) * R(1, 0));
  if (cp > 1e-12) return {std::atan2(R(2, 1), R(2, 2)), std::atan2(-R(2, 0), cp), std::atan2(R(1, 0), R(0, 0))};
  // Pitch at +-90 degrees: only the difference of roll and yaw is defined.
  return {std::atan2(-R(1, 2), R(1, 1)), std::atan2(-R(2, 0), cp), 0.0};
}

void writeOrigin(VorSimTinyXmlWriterElement& parent, const Mat<3, 1>& pos, const Mat<3, 3>& rot) {
  VorSimTinyXmlWriterElement& origin = parent.appendChild("origin");
  origin.setAttribute("xyz", pos);
  if (!isIdentity(rot)) origin.setAttribute("rpy", rpyOf(rot));
}

void writeGeometry(VorSimTinyXmlWriterElement& parent, Shape::Type shape, const Mat<4, 1>& p, const Mat<3, 1>& scale,
                   const std::string& meshFile) {
  VorSimTinyXmlWriterElement& geometry = parent.appendChild("geometry");
  switch (shape) {
    case Shape::Box:
      geometry.appendChild("box").setAttribute("size", Mat<3, 1>{p[0], p[1], p[2]});
      break;
    case Shape::Cylinder:
      geometry.appendChild("cylinder").setAttribute("radius", p[0]).setAttribute("length", p[1]);
      break;
    case Shape::Capsule:
      geometry.appendChild("capsule").setAttribute("radius", p[0]).setAttribute("length", p[1]);
      break;
    case Shape::Sphere:
      geometry.appendChild("sphere").setAttribute("radius", p[0]);
      break;
    case Shape::Mesh:
      geometry.appendChild("mesh").setAttribute("filename", meshFile).setAttribute("scale", scale);
      break;
    default:
      break;
  }
}

const char* wireTypeName(int type) {
  switch (type) {
    case LengthConstraint::COMPLIANT:
      return "compliant";
    case LengthConstraint::CUSTOM:
      return "custom";
    default:
      return "stiff";
  }
}

const char* gyroscopicModeName(GyroscopicMode mode) {
  switch (mode) {
    case IMPLICIT_GYROSCOPIC_FORCE_WORLD:
      return "implicit_world";
    case EXPLICIT_GYROSCOPIC_FORCE:
      return "explicit";
    case NO_GYROSCOPIC_FORCE:
      return "none";
    default:
      return "implicit_body";
  }
}

const char* stretchTypeName(int type) {
  switch (type) {
    case LengthConstraint::BOTH:
      return "both";
    case LengthConstraint::COMPRESSION_ONLY:
      return "compression_only";
    default:
      return "stretch_only";
  }
}

// A mesh that no file describes, written as OBJ.
bool writeObj(const std::string& path, const Mesh& mesh) {
  std::ofstream file(path);
  if (!file.is_open()) {
    MSG_FATAL("failed to save file: " << path << ". Make sure the directory exists");
    return false;
  }
  const auto& v = mesh.getMeshVertices();
  const auto& f = mesh.getMeshIndices();
  for (size_t i = 0; i + 2 < v.size(); i += 3)
    file << "v " << formatNumber(v[i]) << ' ' << formatNumber(v[i + 1]) << ' ' << formatNumber(v[i + 2]) << '\n';
  for (size_t i = 0; i + 2 < f.size(); i += 3)
    file << "f " << f[i] + 1 << ' ' << f[i + 1] + 1 << ' ' << f[i + 2] + 1 << '\n';
  return file.good();
}

// A robot's actuation: the control mode, PD gains and targets, and the
// feed-forward force, each written when it has its full length.
void writeControl(VorSimTinyXmlWriterElement& e, const ArticulatedSystem& s) {
  e.setAttribute("mode", s.getControlMode() == ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE
                             ? "pd_plus_feedforward_torque"
                             : "force_control");
  if (s.pGain.n == s.dof && s.dGain.n == s.dof) e.setAttribute("p_gain", s.pGain).setAttribute("d_gain", s.dGain);
  if (s.posTarget.n == s.gcDim && s.velTarget.n == s.dof)
    e.setAttribute("pos_target", s.posTarget).setAttribute("vel_target", s.velTarget);
  if (s.feedForward.n == s.dof) e.setAttribute("force", s.feedForward);
}

}  // namespace

// ------------------------------------------------------------------ world --

bool World::exportToXml(const std::string& directory, const std::string& fileName) {
  const std::string stem = stemOf(fileName);
  VorSimTinyXmlWriter writer("vorsim");
  VorSimTinyXmlWriterElement& root = writer.getRoot();
  root.setAttribute("version", "1.1.7");
  root["gravity"].setAttribute("value", gravity_);
  root["timeStep"].setAttribute("value", timeStep_);
  root["erp"].setAttribute("erp", solver_.erp).setAttribute("erp2", solver_.erp2);
  root["contact_solver"]
      .setAttribute("max_iteration", solver_.maxIter)
      .setAttribute("threshold", solver_.threshold)
      .setAttribute("alpha_init", solver_.alpha_init)
      .setAttribute("alpha_min", solver_.alpha_min)
      .setAttribute("alpha_decay", solver_.alpha_decay)
      .setAttribute("warm_start", solver_.warmStart ? "true" : "false")
      .setAttribute("warm_start_tolerance", warmStartCache_.getTolerance())
      .setAttribute("exact_coulomb_sliding", solver_.exactCoulomb ? "true" : "false")
      .setAttribute("forward_order", solver_.forwardOrder ? "true" : "false");
  VorSimTinyXmlWriterElement& objects = root["objects"];

  std::vector<std::string> names(objects_.size());
  for (size_t i = 0; i < objects_.size(); ++i)
    names[i] = objects_[i]->getName().empty() ? "unnamed_" + std::to_string(i) : objects_[i]->getName();

  for (size_t i = 0; i < objects_.size(); ++i) {
    Object* object = objects_[i];
    const ObjectType type = object->getObjectType();
    if (type == CONE) {
      MSG_WARN("Cone collision shape is not supported: object " << names[i] << " is not written");
      continue;
    }
    VorSimTinyXmlWriterElement& e = objects.appendChild(objectTypeToString(type));
    e.setAttribute("name", names[i]);

    if (auto* system = dynamic_cast<ArticulatedSystem*>(object)) {
      std::string urdfPath;
      const std::string robotFile = stem + "_" + names[i] + ".urdf";
      if (!system->getUrdfString().empty()) {
        // URDF text (or an expanded template): the text is the description.
        std::ofstream file(directory + "/" + robotFile);
        file << system->getUrdfString();
        if (!file.good()) {
          MSG_FATAL("failed to save file: " << directory + "/" + robotFile << ". Make sure the directory exists");
          return false;
        }
        urdfPath = "[THIS_DIR]/" + robotFile;
      } else if (!system->getRobotFilePath().empty()) {
        urdfPath = absolutePath(system->getRobotFilePath());
      } else {
        if (!system->exportRobotDescriptionToURDF(directory, robotFile)) return false;
        urdfPath = "[THIS_DIR]/" + robotFile;
      }
      e.setAttribute("res_dir", absolutePath(system->getResourceDir()));
      e.setAttribute("urdf_path", urdfPath);
      e["state"]
          .setAttribute("qpos", system->getGeneralizedCoordinate())
          .setAttribute("qvel", system->getGeneralizedVelocity());
      writeControl(e.appendChild("control"), *system);
      continue;
    }

    auto* single = dynamic_cast<SingleBodyObject*>(object);
    if (single == nullptr) {
      MSG_WARN("object " << names[i] << " is of a kind that world files do not describe: it is not written");
      continue;
    }
    if (single->getBodyType() == KINEMATIC) e.setAttribute("body_type", "kinematic");
    if (single->getBodyType() == STATIC && type != GROUND && type != HEIGHTMAP) e.setAttribute("body_type", "static");

    switch (type) {
      case SPHERE:
        e.setAttribute("radius", static_cast<Sphere*>(single)->getRadius());
        break;
      case BOX:
        e.setAttribute("dim", static_cast<Box*>(single)->getDim());
        break;
      case CYLINDER:
        e.setAttribute("radius", static_cast<Cylinder*>(single)->getRadius())
            .setAttribute("height", static_cast<Cylinder*>(single)->getHeight());
        break;
      case CAPSULE:
        e.setAttribute("radius", static_cast<Capsule*>(single)->getRadius())
            .setAttribute("height", static_cast<Capsule*>(single)->getHeight());
        break;
      case GROUND:
        e.setAttribute("height", static_cast<Ground*>(single)->getHeight());
        break;
      case MESH: {
        auto* mesh = static_cast<Mesh*>(single);
        if (mesh->getMeshFileName().empty()) {
          const std::string objFile = stem + "_" + names[i] + ".obj";
          if (!writeObj(directory + "/" + objFile, *mesh)) return false;
          e.setAttribute("fileName", "[THIS_DIR]/" + objFile).setAttribute("scale", 1.0);
        } else {
          e.setAttribute("fileName", absolutePath(mesh->getMeshFileName())).setAttribute("scale", mesh->getMeshScale());
        }
        e.setAttribute("com", single->getBodyComOffset());
        break;
      }
      case COMPOUND: {
        e.setAttribute("com", single->getBodyComOffset());
        VorSimTinyXmlWriterElement& list = e["children"];
        for (const Compound::CompoundObjectChild& c : static_cast<Compound*>(single)->getChildren()) {
          VorSimTinyXmlWriterElement& child = list.appendChild("child");
          child.setAttribute("type", objectTypeToString(c.objectType)).setAttribute("material", c.material);
          if (!c.appearance.empty()) child.setAttribute("appearance", c.appearance);
          if (c.objectType == BOX)
            child.setAttribute("dim", Mat<3, 1>{c.objectParam[0], c.objectParam[1], c.objectParam[2]});
          else
            child.setAttribute("radius", c.objectParam[0]);
          if (c.objectType == CYLINDER || c.objectType == CAPSULE) child.setAttribute("height", c.objectParam[1]);
          VorSimTinyXmlWriterElement& state = child["state"];
          const Mat<4, 1> q = quaternionOf(c.rotation);
          state.setAttribute("pos", c.position).setAttribute("quat", q);
          // Where the quaternion does not give the very same matrix back, the
          // matrix itself is written too (row after row), and it wins.
          Mat<3, 3> back;
          quatToRotMat(q, back);
          bool exact = true;
          for (size_t k = 0; k < 9; ++k) exact = exact && back.v[k] == c.rotation.v[k];
          if (!exact) {
            double rows[9];
            for (size_t r = 0; r < 3; ++r)
              for (size_t col = 0; col < 3; ++col) rows[3 * r + col] = c.rotation(r, col);
            state.setAttribute("rot", rows, 9);
          }
        }
        break;
      }
      case HEIGHTMAP: {
        auto* map = static_cast<HeightMap*>(single);
        e.setAttribute("center_x", map->getCenterX())
            .setAttribute("center_y", map->getCenterY())
            .setAttribute("x_size", map->getXSize())
            .setAttribute("y_size", map->getYSize())
            .setAttribute("x_sample", map->getXSamples())
            .setAttribute("y_sample", map->getYSamples())
            .setAttribute("height", map->getHeightMap());
        break;
      }
      default:
        break;
    }

    dxGeom* geom = single->getCollisionObject();
    if (geom != nullptr && type != COMPOUND) e.setAttribute("material", geomData(geom).material);
    if (geom != nullptr) {
      if (type != GROUND) e.setAttribute("collision_group", single->getCollisionGroup());
      e.setAttribute("collision_mask", single->getCollisionMask());
    }
    if (isMovableSingleBody(type)) {
      e.setAttribute("mass", single->getMass());
      const Mat<3, 3>& I = single->getInertiaMatrix_B();
      double rows[9];
      for (size_t r = 0; r < 3; ++r)
        for (size_t c = 0; c < 3; ++c) rows[3 * r + c] = I(r, c);
      e.setAttribute("inertia", rows, 9);
      // Damping and the gyroscopic mode where they differ from a new body's.
      if (single->getLinearDamping() != 0.0) e.setAttribute("linear_damping", single->getLinearDamping());
      const Mat<3, 1>& angularDamping = single->getAngularDamping();
      if (angularDamping[0] != 0.0 || angularDamping[1] != 0.0 || angularDamping[2] != 0.0)
        e.setAttribute("angular_damping", angularDamping);
      if (single->getGyroscopicMode() != IMPLICIT_GYROSCOPIC_FORCE_BODY)
        e.setAttribute("gyroscopic_mode", gyroscopicModeName(single->getGyroscopicMode()));
    }
    if (!single->getAppearance().empty() && type != GROUND) e.setAttribute("appearance", single->getAppearance());
    // A height map's geom stays at its centre until it is moved; only a moved
    // map has a pose to write.
    const bool movedMap =
        type == HEIGHTMAP &&
        (single->getPosition().squaredNorm() != 0.0 || single->getQuaternion()[0] != 1.0 ||
         single->getQuaternion()[1] != 0.0 || single->getQuaternion()[2] != 0.0 || single->getQuaternion()[3] != 0.0);
    if ((type != GROUND && type != HEIGHTMAP) || movedMap)
      e["state"]
          .setAttribute("pos", single->getPosition())
          .setAttribute("quat", single->getQuaternion())
          .setAttribute("lin_vel", single->getLinearVelocity())
          .setAttribute("ang_vel", single->getAngularVelocity());
  }

  auto indexOf = [this](const Object* object) {
    for (size_t i = 0; i < objects_.size(); ++i)
      if (objects_[i] == object) return i;
    return objects_.size();
  };
  for (const auto& wire : wires_) {
    VorSimTinyXmlWriterElement& w = root.appendChild("wire");
    w.setAttribute("type", wireTypeName(wire->getWireType()));
    if (auto* compliant = dynamic_cast<CompliantLengthConstraint*>(wire.get()))
      w.setAttribute("stiffness", compliant->getStiffness());
    if (auto* custom = dynamic_cast<CustomLengthConstraint*>(wire.get()))
      if (custom->getTension() != 0.0) w.setAttribute("tension", custom->getTension());
    w.setAttribute("length", wire->getLength());
    if (!wire->getName().empty()) w.setAttribute("name", wire->getName());
    w.setAttribute("stretch_type", stretchTypeName(wire->getStretchType()));
    const Object* ends[2] = {wire->getBody1(), wire->getBody2()};
    const size_t locals[2] = {wire->getLocalIdx1(), wire->getLocalIdx2()};
    const Mat<3, 1>* mounts[2] = {&wire->getOb1MountPos(), &wire->getOb2MountPos()};
    for (size_t k = 0; k < 2; ++k) {
      const size_t i = indexOf(ends[k]);
      if (i == objects_.size()) {
        MSG_WARN("a wire holds an object that is not in the world: the wire is not written");
        continue;
      }
      if (getObject(names[i]) != ends[k] && getObject(names[i]) != nullptr)
        MSG_WARN("the wire " << wire->getName() << " holds the object \"" << names[i]
                             << "\", a name that another object has too: read back, it holds the first of them");
      w.appendChild(k == 0 ? "object1" : "object2")
          .setAttribute("name", names[i])
          .setAttribute("local_index", locals[k])
          .setAttribute("pos", *mounts[k]);
    }
  }

  return writer.saveFile(directory + "/" + fileName);
}

// ------------------------------------------------------------------ robot --

bool ArticulatedSystem::exportRobotDescriptionToURDF(const std::string& directory, const std::string& fileName) const {
  if (isFromUrdf()) {
    MSG_WARN("This articulated system was created with an existing urdf file");
    return false;
  }
  if (fileName.size() < 5 || fileName.compare(fileName.size() - 5, 5, ".urdf") != 0) {
    MSG_FATAL("Articulated System is only saved to a URDF format");
    return false;
  }

  std::vector<std::string> linkNames(bodyNames);
  for (size_t i = 0; i < nbody; ++i)
    if (linkNames[i].empty()) {
      linkNames[i] = "body" + std::to_string(i);
      MSG_WARN("body " << i << " has no name: it is written as link \"" << linkNames[i] << "\"");
    }

  VorSimTinyXmlWriter writer("robot");
  VorSimTinyXmlWriterElement& robot = writer.getRoot();
  robot.setAttribute("name", getName().empty() ? std::string("robot") : getName());
  const bool fixedBase = jointType[0] == Joint::FIXED;

  if (fixedBase) robot.appendChild("link").setAttribute("name", "world");
  for (size_t i = 0; i < nbody; ++i) {
    VorSimTinyXmlWriterElement& link = robot.appendChild("link");
    link.setAttribute("name", linkNames[i]);
    VorSimTinyXmlWriterElement& inertial = link.appendChild("inertial");
    inertial.appendChild("origin").setAttribute("xyz", comB[i]);
    inertial.appendChild("mass").setAttribute("value", massOf[i]);
    const Mat<3, 3>& I = inertiaB[i];
    inertial.appendChild("inertia")
        .setAttribute("ixx", I(0, 0))
        .setAttribute("iyy", I(1, 1))
        .setAttribute("izz", I(2, 2))
        .setAttribute("ixy", I(0, 1))
        .setAttribute("ixz", I(0, 2))
        .setAttribute("iyz", I(1, 2));

    for (const VisObject& v : visObj) {
      if (v.localIdx != i) continue;
      VorSimTinyXmlWriterElement& visual = link.appendChild("visual");
      writeOrigin(visual, v.offset, v.rot);
      writeGeometry(visual, v.shape, v.shapeParam, v.scale, v.meshFile);
      // An empty material name makes the reader take the visual's own colour.
      visual.appendChild("material")
          .setAttribute("name", v.material)
          .appendChild("color")
          .setAttribute("rgba", v.color);
    }
    for (size_t k = 0; k < collisionDefinitions.size(); ++k) {
      if (collisionDefinitions[k].localIdx != i) continue;
      const VisObject& v = visColObj[k];
      VorSimTinyXmlWriterElement& collision = link.appendChild("collision");
      writeOrigin(collision, v.offset, v.rot);
      writeGeometry(collision, v.shape, v.shapeParam, v.scale, v.meshFile);
      const std::string& contact = geomData(collisionDefinitions[k].colObj).material;
      if (!v.material.empty() || !contact.empty()) {
        VorSimTinyXmlWriterElement& material = collision.appendChild("material");
        material.setAttribute("name", v.material);
        if (!contact.empty()) material.appendChild("contact").setAttribute("name", contact);
      }
    }
  }
  // Links merged into a body live on as frames: each comes back as a massless
  // link on a fixed joint, so that the frame is rebuilt where it was.
  for (const CoordinateFrame& f : frames) {
    if (f.isMovableJoint || f.bodyName.empty()) continue;
    robot.appendChild("link").setAttribute("name", f.bodyName);
  }

  if (fixedBase) {
    VorSimTinyXmlWriterElement& joint = robot.appendChild("joint");
    joint.setAttribute("name", frames[0].name).setAttribute("type", "fixed");
    writeOrigin(joint, posW[0], rotW[0]);
    joint.appendChild("parent").setAttribute("link", "world");
    joint.appendChild("child").setAttribute("link", linkNames[0]);
  }
  const size_t firstJointName = fixedBase ? 1 : 0;
  for (size_t i = 1; i < nbody; ++i) {
    const size_t g = gvIdx[i];
    VorSimTinyXmlWriterElement& joint = robot.appendChild("joint");
    const char* typeName = jointType[i] == Joint::REVOLUTE    ? "revolute"
                           : jointType[i] == Joint::PRISMATIC ? "prismatic"
                           : jointType[i] == Joint::SPHERICAL ? "spherical"
                           : jointType[i] == Joint::FLOATING  ? "floating"
                                                              : "fixed";
    joint.setAttribute("name", movableJointNames[i - firstJointName]).setAttribute("type", typeName);
    writeOrigin(joint, jointPosP[i], jointRotP[i]);
    joint.appendChild("parent").setAttribute("link", linkNames[parent[i]]);
    joint.appendChild("child").setAttribute("link", linkNames[i]);
    if (jointType[i] != Joint::SPHERICAL) joint.appendChild("axis").setAttribute("xyz", jointAxisB[i]);
    if (g < dof) {
      VorSimTinyXmlWriterElement& limit = joint.appendChild("limit");
      limit.setAttribute("lower", jointLimits[g][0]);
      if (jointType[i] != Joint::SPHERICAL) limit.setAttribute("upper", jointLimits[g][1]);
      limit.setAttribute("effort", tauUpper[g]).setAttribute("velocity", velocityLimitOf[i]);
      VorSimTinyXmlWriterElement& dynamics = joint.appendChild("dynamics");
      dynamics.setAttribute("damping", jointDampingGv[g])
          .setAttribute("friction", jointFrictionGv[g])
          .setAttribute("rotor_inertia", rotorInertiaGv[g]);
      for (const SpringElement& s : springs) {
        if (s.springBody != i) continue;
        dynamics.setAttribute("stiffness", s.springStiffness);
        if (jointType[i] == Joint::SPHERICAL)
          dynamics.setAttribute("spring_mount", s.springRest);
        else
          dynamics.setAttribute("spring_mount", s.springRest[0]);
      }
    }
  }
  for (const CoordinateFrame& f : frames) {
    if (f.isMovableJoint || f.bodyName.empty()) continue;
    VorSimTinyXmlWriterElement& joint = robot.appendChild("joint");
    joint.setAttribute("name", f.name).setAttribute("type", "fixed");
    writeOrigin(joint, f.position, f.orientation);
    joint.appendChild("parent").setAttribute("link", linkNames[f.parentId]);
    joint.appendChild("child").setAttribute("link", f.bodyName);
  }
  if (!pins.empty()) {
    VorSimTinyXmlWriterElement& constraints = robot.appendChild("constraints");
    // The configuration at which the pins were placed.
    constraints.setAttribute("nominal_config", pinConfiguration.n == gcDim ? pinConfiguration : gc);
    for (const PinConstraint& pin : pins)
      constraints.appendChild("pin")
          .setAttribute("anchor", pin.pinPos1)
          .setAttribute("body1", linkNames[pin.pinBody1])
          .setAttribute("body2", linkNames[pin.pinBody2]);
  }
  return writer.saveFile(directory + "/" + fileName);
}

}  // namespace vorsim
