// Reading a world from a file: the constructor that picks the format, the
// world configuration file (text stage, then elements), object classes, and
// URDF templates.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Mesh.hpp"
#include "vorsim/object/Primitives.hpp"

namespace vorsim {

// ----------------------------------------------------------- construction --

World::World(const std::string& configFile, const std::unordered_map<std::string, std::string>& params) {
  init();
  configFile_ = configFile;
  try {
    std::ifstream file(configFile);
    if (!file.is_open()) {
      MSG_FATAL("Could not open the vorsim configuration file: " << configFile);
      return;
    }
    std::stringstream buffer;
    buffer << file.rdbuf();
    const std::string text = buffer.str();
    // An MJCF file may well mention <vorsim in a comment, never the reverse.
    if (text.find("<mujoco") != std::string::npos)
      loadMjcf(configFile);
    else if (text.find("<vorsim") != std::string::npos)
      loadVorSimConfig(configFile, params);
  } catch (...) {
    releaseAll();
    throw;
  }
}

void World::releaseAll() {
  wires_.clear();
  for (Object* object : objects_) {
    object->destroyCollisionBodies(collisionSpace_);
    delete object;
  }
  objects_.clear();
  destroyGeom(rayGeom_);
  rayGeom_ = nullptr;
  dSpaceDestroy(collisionSpace_);
  collisionSpace_ = nullptr;
  dCloseODE();
}

ArticulatedSystem* World::addArticulatedSystem(const std::string& templateFile,
                                               const std::unordered_map<std::string, std::string>& params,
                                               const std::string& resourceDir, size_t collisionGroup,
                                               size_t collisionMask, ArticulatedSystemOption option) {
  ++configurationNumber_;
  if (!std::ifstream(templateFile).good()) {
    MSG_FATAL(templateFile << " does not exist");
    return nullptr;
  }
  const std::string text = expandConfigText(templateFile, params, "Could not open the URDF template: ");
  if (text.empty()) return nullptr;
  auto* system = new ArticulatedSystem(templateFile, text, resourceDir, {}, option);
  return registerArticulatedSystem(system, collisionGroup, collisionMask);
}

// ------------------------------------------------------------ the reader --

namespace {

bool isCompoundShape(ObjectType type) { return type == SPHERE || type == BOX || type == CYLINDER || type == CAPSULE; }

// Includes being read (canonical paths), innermost last: a file that includes
// itself, directly or not, is refused instead of recursing without end.
thread_local std::vector<std::string> includeStack;

std::string canonicalPath(const std::string& path) {
  std::error_code error;
  const auto canonical = std::filesystem::canonical(path, error);
  return error ? path : canonical.string();
}

struct IncludeGuard {
  explicit IncludeGuard(const std::string& path) { includeStack.push_back(canonicalPath(path)); }
  ~IncludeGuard() { includeStack.pop_back(); }
};

}  // namespace

// Reads the elements of one configuration file into a world. Objects are read
// through the world's public add-functions; values of an instance of an object
// class come from the instance's attributes first, then from the class.
class WorldConfigReader {
 public:
  using XmlObjectClass = World::XmlObjectClass;

  WorldConfigReader(World& world, const std::string& path, const std::unordered_map<std::string, std::string>& params)
      : world_(world), path_(path), directory_(directoryOf(path)), params_(params) {}

  void read(const VorSimTinyXmlWrapper& root) {
    for (const VorSimTinyXmlWrapper& include : root.getChildren("include")) readInclude(include);
    auto materials = root.getChildren("material");
    if (!materials.empty()) world_.materialManager_.init(materials[0]);
    auto gravity = root.getChildren("gravity");
    if (!gravity.empty()) world_.setGravity(xml::readVector<3>(gravity[0], "value"));
    auto timeStep = root.getChildren("timeStep");
    if (!timeStep.empty()) world_.setTimeStep(xml::readNumber(timeStep[0], "value"));
    auto erp = root.getChildren("erp");
    if (!erp.empty()) {
      double erp2 = world_.solver_.erp2;
      const double value = xml::readNumber(erp[0], "erp");
      xml::readNumberIfExists(erp[0], "erp2", erp2);
      world_.setERP(value, erp2);
    }
    for (const char* tag : {"contact_solver", "contactSolver"})
      for (const VorSimTinyXmlWrapper& solver : root.getChildren(tag)) readContactSolver(solver);
    for (const VorSimTinyXmlWrapper& c : root.getChildren("object_class")) readClass(c);
    for (const VorSimTinyXmlWrapper& objects : root.getChildren("objects"))
      for (const VorSimTinyXmlWrapper& e : objects.getChildren()) readObject(e);
    for (const VorSimTinyXmlWrapper& w : root.getChildren("wire")) readWire(w);
  }

 private:
  // An element and, for an instance, its class.
  struct Source {
    const VorSimTinyXmlWrapper& element;
    const XmlObjectClass* objectClass;
  };

  // ---- world settings ----

  // "true" or "false" (or capitalised); anything else is a located message.
  static bool flag(const VorSimTinyXmlWrapper& e, const char* snake, const char* camel, bool& out) {
    std::string value;
    if (!e.getAttributeIfExists(snake, camel, value)) return false;
    if (value == "true" || value == "True") {
      out = true;
    } else if (value == "false" || value == "False") {
      out = false;
    } else {
      e.errorMessage("the attribute '" + std::string(snake) + "' should be \"true\" or \"false\", not '" + value + "'");
      return false;
    }
    return true;
  }

  static bool number(const VorSimTinyXmlWrapper& e, const char* snake, const char* camel, double& out) {
    return xml::readNumberIfExists(e, snake, out) || xml::readNumberIfExists(e, camel, out);
  }

  // The contact solver's settings; an attribute left out keeps the world's
  // present value (the defaults, for a new world).
  void readContactSolver(const VorSimTinyXmlWrapper& e) {
    contact::BisectionContactSolver& solver = world_.solver_;
    double maxIter = solver.maxIter;
    if (number(e, "max_iteration", "maxIteration", maxIter)) {
      if (!(maxIter >= 1.0 && maxIter <= 1e9) || maxIter != std::floor(maxIter)) {
        e.errorMessage("the attribute 'max_iteration' should be a whole number of at least 1, not " +
                       formatNumber(maxIter));
        return;
      }
    }
    double threshold = solver.threshold, alphaInit = solver.alpha_init, alphaMin = solver.alpha_min,
           alphaDecay = solver.alpha_decay;
    xml::readNumberIfExists(e, "threshold", threshold);
    number(e, "alpha_init", "alphaInit", alphaInit);
    number(e, "alpha_min", "alphaMin", alphaMin);
    number(e, "alpha_decay", "alphaDecay", alphaDecay);
    world_.setContactSolverParam(alphaInit, alphaMin, alphaDecay, int(maxIter), threshold);

    bool on = false;
    if (flag(e, "warm_start", "warmStart", on)) world_.setWarmStart(on);
    double tolerance = 0.0;
    if (number(e, "warm_start_tolerance", "warmStartTolerance", tolerance)) world_.setWarmStartTolerance(tolerance);
    if (flag(e, "exact_coulomb_sliding", "exactCoulombSliding", on)) world_.setExactCoulombSliding(on);
    // The sweep direction of the next solve (it alternates from step to step).
    if (flag(e, "forward_order", "forwardOrder", on)) solver.forwardOrder = on;
  }

  // ---- values, from the element or its class ----

  bool text(const Source& s, std::initializer_list<const char*> names, std::string& out) const {
    for (const char* name : names)
      if (s.element.getAttributeIfExists(name, out)) return true;
    if (s.objectClass == nullptr) return false;
    for (const char* name : names) {
      const auto it = s.objectClass->attributes.find(name);
      if (it != s.objectClass->attributes.end()) {
        out = it->second;
        return true;
      }
    }
    return false;
  }

  bool numbers(const Source& s, std::initializer_list<const char*> names, std::vector<double>& out) const {
    std::string value;
    if (!text(s, names, value)) return false;
    if (!xml::parseNumbers(value, out)) {
      s.element.errorMessage("the attribute '" + std::string(*names.begin()) + "' holds text that is not a number: '" +
                             value + "'");
      return false;
    }
    return true;
  }

  bool number(const Source& s, std::initializer_list<const char*> names, double& out) const {
    std::vector<double> values;
    if (!numbers(s, names, values)) return false;
    if (values.size() != 1) {
      s.element.errorMessage("the attribute '" + std::string(*names.begin()) + "' should be one number");
      return false;
    }
    out = values[0];
    return true;
  }

  // A number that must be there: its absence is the XML layer's located
  // message for the first spelling.
  double required(const Source& s, std::initializer_list<const char*> names) const {
    double value = 0.0;
    if (!number(s, names, value)) {
      std::string present;
      if (!text(s, names, present)) s.element.getAttributeMust<std::string>(*names.begin());
    }
    return value;
  }

  template <size_t n>
  bool vector(const Source& s, std::initializer_list<const char*> names, Mat<n, 1>& out) const {
    std::vector<double> values;
    if (!numbers(s, names, values)) return false;
    if (values.size() != n) {
      s.element.errorMessage("the attribute '" + std::string(*names.begin()) + "' should have " + std::to_string(n) +
                             " numbers, not " + std::to_string(values.size()));
      return false;
    }
    for (size_t i = 0; i < n; ++i) out[i] = values[i];
    return true;
  }

  // A 3x3 inertia from 9 numbers (row after row), 6 (ixx iyy izz ixy ixz iyz)
  // or 3 (the diagonal).
  bool inertia(const Source& s, Mat<3, 3>& out) const {
    std::vector<double> v;
    if (!numbers(s, {"inertia"}, v)) return false;
    out.setZero();
    if (v.size() == 9) {
      for (size_t i = 0; i < 3; ++i)
        for (size_t j = 0; j < 3; ++j) out(i, j) = v[3 * i + j];
    } else if (v.size() == 6) {
      out(0, 0) = v[0];
      out(1, 1) = v[1];
      out(2, 2) = v[2];
      out(0, 1) = out(1, 0) = v[3];
      out(0, 2) = out(2, 0) = v[4];
      out(1, 2) = out(2, 1) = v[5];
    } else if (v.size() == 3) {
      out(0, 0) = v[0];
      out(1, 1) = v[1];
      out(2, 2) = v[2];
    } else {
      s.element.errorMessage("the attribute 'inertia' should have 9, 6 or 3 numbers");
      return false;
    }
    return true;
  }

  // A collision group or mask: a number ("-1" for all bits) or
  // collision[i,j,...], each index setting bit 1 << index (-1: all bits).
  size_t bits(const Source& s, std::initializer_list<const char*> names, size_t fallback) const {
    std::string value;
    if (!text(s, names, value)) return fallback;
    std::string compact;
    for (char c : value)
      if (c != ' ' && c != '\t') compact += c;
    const std::string head = "collision[";
    if (compact.compare(0, head.size(), head) == 0 && compact.back() == ']') {
      std::vector<double> indices;
      if (!xml::parseNumbers(compact.substr(head.size(), compact.size() - head.size() - 1), indices)) indices = {0.5};
      size_t result = 0;
      for (double index : indices) {
        if (index == -1.0) return World::kAllBits;
        if (index < 0.0 || index > 63.0 || index != double(size_t(index))) {
          s.element.errorMessage("the collision bits '" + value + "' need indices from 0 to 63, or -1 for all");
          return fallback;
        }
        result |= size_t(1) << size_t(index);
      }
      return result;
    }
    double number = 0.0;
    if (!xml::parseDouble(compact, number) || number != double(int64_t(number)) || number < -1.0) {
      s.element.errorMessage("the collision bits '" + value + "' are neither a number nor of the form collision[i,j]");
      return fallback;
    }
    return number == -1.0 ? World::kAllBits : size_t(number);
  }

  // A file named in the world file: as written, else below the world file's
  // directory. Missing: a located message.
  std::string file(const VorSimTinyXmlWrapper& e, const std::string& name, const std::string& missing) const {
    const std::string found = findFile(name, directory_);
    if (found.empty()) e.errorMessage(missing + name);
    return found;
  }

  // ---- elements ----

  void readInclude(const VorSimTinyXmlWrapper& include) {
    const std::string name = include.getAttributeMust<std::string>("value");
    const std::string path = file(include, name, "Could not open the vorsim configuration file: ");
    if (path.empty()) return;
    for (const std::string& open : includeStack)
      if (open == canonicalPath(path)) {
        include.errorMessage("the file " + path + " includes itself");
        return;
      }
    world_.loadVorSimConfig(path, params_);
  }

  void readClass(const VorSimTinyXmlWrapper& c) {
    const std::string name = c.getAttributeMust<std::string>("name");
    if (world_.xmlObjectClasses_.count(name)) {
      c.errorMessage(path_ + " contains duplicate object class name: " + name);
      return;
    }
    XmlObjectClass objectClass;
    objectClass.name = name;
    objectClass.type = stringToObjectType(c.getAttributeMust<std::string>("type"));
    if (objectClass.type == UNRECOGNIZED) {
      c.errorMessage("unrecognized object type in " + c.getFullTree());
      return;
    }
    for (const char* attribute : {"mass",
                                  "inertia",
                                  "com",
                                  "material",
                                  "dimension",
                                  "dim",
                                  "radius",
                                  "height",
                                  "file",
                                  "file_name",
                                  "fileName",
                                  "scale",
                                  "appearance",
                                  "urdf_path",
                                  "urdfPath",
                                  "res_dir",
                                  "resDir",
                                  "collision_group",
                                  "collisionGroup",
                                  "collision_mask",
                                  "collisionMask",
                                  "body_type",
                                  "linear_damping",
                                  "linearDamping",
                                  "angular_damping",
                                  "angularDamping",
                                  "gyroscopic_mode",
                                  "gyroscopicMode"}) {
      std::string value;
      if (c.getAttributeIfExists(attribute, value)) objectClass.attributes[attribute] = value;
    }
    if (objectClass.type == COMPOUND) {
      auto children = c.getChildren("children");
      if (children.empty()) {
        c.getChildrenMust("children");  // the located "does not contain a child" message
        return;
      }
      objectClass.children = readCompoundChildren(children[0], true);
    }
    world_.xmlObjectClasses_[name] = std::move(objectClass);
  }

  const XmlObjectClass* findClass(const std::string& name) const {
    const auto it = world_.xmlObjectClasses_.find(name);
    return it == world_.xmlObjectClasses_.end() ? nullptr : &it->second;
  }

  // The entries of a compound's "children" element. An entry's "type" is a
  // shape (sphere, box, cylinder, capsule) or the name of an object class; in
  // an object (not a class) an entry may also be an element named after a
  // class.
  std::vector<Compound::CompoundObjectChild> readCompoundChildren(const VorSimTinyXmlWrapper& list, bool inClass) {
    std::vector<Compound::CompoundObjectChild> children;
    for (const VorSimTinyXmlWrapper& c : list.getChildren()) {
      Compound::CompoundObjectChild child;
      std::string typeText;
      if (!c.getAttributeIfExists("type", typeText)) {
        if (!findClass(c.getName())) {
          c.errorMessage("unrecognized compound child: " + c.getName());
          continue;
        }
        typeText = c.getName();
      }
      const ObjectType type = stringToObjectType(typeText);
      if (type == CONE) {
        c.errorMessage("Cone collision body is no longer supported");
        continue;
      }
      const bool reference = !isCompoundShape(type);
      if (reference && !inClass && !findClass(typeText)) {
        c.errorMessage("unrecognized compound child: " + typeText);
        continue;
      }
      child.objectType = reference ? COMPOUND : type;
      child.name = reference ? typeText : c.getName();
      std::string material, appearance;
      if (c.getAttributeIfExists("material", material))
        child.material = material;
      else if (reference)
        child.material.clear();  // the class's
      c.getAttributeIfExists("appearance", child.appearance);

      if (!reference && !readChildSize(c, type, typeText, child.objectParam)) continue;
      readChildPose(c, child);
      children.push_back(child);
    }
    return children;
  }

  bool readChildSize(const VorSimTinyXmlWrapper& c, ObjectType type, const std::string& typeText, Mat<4, 1>& size) {
    const Source s{c, nullptr};
    std::vector<double> v;
    if (!numbers(s, {"dim", "dimension", "object_param"}, v)) {
      double r = 0.0, h = 0.0;
      if (number(s, {"radius"}, r)) v.push_back(r);
      if (number(s, {"height"}, h)) v.push_back(h);
    }
    const size_t needed = type == BOX ? 3 : type == SPHERE ? 1 : 2;
    if (v.size() < needed) {
      c.errorMessage(typeText + " requires a dimension attribute");
      return false;
    }
    size.setZero();
    for (size_t i = 0; i < v.size() && i < 4; ++i) size[i] = v[i];
    return true;
  }

  // pos and quat (or a row-major rot, which wins) on the entry or on its
  // "state" child.
  void readChildPose(const VorSimTinyXmlWrapper& c, Compound::CompoundObjectChild& child) {
    std::vector<VorSimTinyXmlWrapper> places{c};
    for (const VorSimTinyXmlWrapper& state : c.getChildren("state")) places.push_back(state);
    for (const VorSimTinyXmlWrapper& p : places) {
      xml::readVectorIfExists(p, "pos", child.position);
      Mat<4, 1> q;
      Mat<9, 1> rot;
      if (xml::readVectorIfExists(p, "rot", rot)) {
        for (size_t i = 0; i < 3; ++i)
          for (size_t j = 0; j < 3; ++j) child.rotation(i, j) = rot[3 * i + j];
      } else if (xml::readVectorIfExists(p, "quat", q)) {
        const double n = q.norm();
        if (n == 0.0) {
          p.errorMessage("the quaternion 'quat' has zero length");
          continue;
        }
        if (n != 1.0) q /= n;
        quatToRotMat(q, child.rotation);
      }
    }
  }

  void readObject(const VorSimTinyXmlWrapper& e) {
    std::string exist;
    if (e.getAttributeIfExists("exist", exist) && (exist == "false" || exist == "False")) return;

    const XmlObjectClass* objectClass = findClass(e.getName());
    const ObjectType type = objectClass ? objectClass->type : stringToObjectType(e.getName());
    const Source s{e, objectClass};
    if (objectClass && !(isCompoundShape(type) || type == MESH || type == COMPOUND || type == ARTICULATED_SYSTEM)) {
      e.errorMessage("ERROR while reading instance: not supported object type");
      return;
    }

    std::string material = "default";
    text(s, {"material"}, material);
    const size_t group = bits(s, {"collision_group", "collisionGroup"}, 1);
    const size_t mask = bits(s, {"collision_mask", "collisionMask"}, World::kAllBits);

    Object* object = nullptr;
    switch (type) {
      case SPHERE: {
        const double mass = required(s, {"mass"});
        std::vector<double> dim;
        double radius = 0.0;
        if (numbers(s, {"dim", "dimension"}, dim) && !dim.empty())
          radius = dim[0];
        else
          radius = required(s, {"radius"});
        object = world_.addSphere(radius, mass, material, group, mask);
        break;
      }
      case BOX: {
        const double mass = required(s, {"mass"});
        Mat<3, 1> dim{0.0, 0.0, 0.0};
        if (!vector(s, {"dim", "dimension"}, dim)) {
          std::string present;
          if (!text(s, {"dim", "dimension"}, present)) e.getAttributeMust<std::string>("dim");
          return;
        }
        object = world_.addBox(dim[0], dim[1], dim[2], mass, material, group, mask);
        break;
      }
      case CYLINDER:
      case CAPSULE: {
        const double mass = required(s, {"mass"});
        double radius = 0.0, height = 0.0;
        std::vector<double> dim;
        if (numbers(s, {"dim", "dimension"}, dim) && dim.size() == 2) {
          radius = dim[0];
          height = dim[1];
        } else {
          radius = required(s, {"radius"});
          height = required(s, {"height"});
        }
        object = type == CYLINDER
                     ? static_cast<Object*>(world_.addCylinder(radius, height, mass, material, group, mask))
                     : world_.addCapsule(radius, height, mass, material, group, mask);
        break;
      }
      case CONE:
        e.errorMessage("Cone shape is not supported");
        return;
      case MESH:
        object = readMesh(s, material, group, mask);
        break;
      case GROUND: {
        double height = 0.0;
        number(s, {"height"}, height);
        object = world_.addGround(height, material, mask);
        break;
      }
      case COMPOUND:
        object = readCompound(s, group, mask);
        break;
      case HEIGHTMAP:
        object = readHeightMap(s, material, group, mask);
        break;
      case ARTICULATED_SYSTEM:
        object = readArticulatedSystem(s, group, mask);
        break;
      default:
        e.errorMessage("Unrecognized object type");
        return;
    }
    if (object == nullptr) {
      MSG_FATAL("The object of " << e.getFullTree()
                                 << " is not allocated. This is an internal error of the world file reader; please "
                                    "report it, with the file, to the vorsim maintainers.");
      return;
    }

    auto* single = dynamic_cast<SingleBodyObject*>(object);
    std::string appearance;
    if (single && text(s, {"appearance"}, appearance)) single->setAppearance(appearance);
    Mat<3, 3> I;
    if (single && isCompoundShape(type) && inertia(s, I) && I.squaredNorm() != 0.0) single->setInertia(I);

    std::string bodyType;
    if (text(s, {"body_type"}, bodyType)) {
      if (single == nullptr) {
        e.errorMessage("body_type is only for single bodies");
      } else if (bodyType == "dynamic") {
        single->setBodyType(DYNAMIC);
      } else if (bodyType == "kinematic") {
        single->setBodyType(KINEMATIC);
      } else if (bodyType == "static") {
        single->setBodyType(STATIC);
      } else {
        e.errorMessage("Unrecognized body type. Should be \"dynamic\", \"kinematic\" or \"static\". ");
      }
    }

    if (single && isMovableSingleBody(type)) readDamping(s, single);

    for (const VorSimTinyXmlWrapper& state : e.getChildren("state")) readState(state, object, single);
    for (const VorSimTinyXmlWrapper& control : e.getChildren("control")) readControl(control, object);
    std::string name;
    if (e.getAttributeIfExists("name", name)) object->setName(name);
  }

  // "linear_damping", "angular_damping" (three numbers, about the body's
  // axes) and "gyroscopic_mode" of a movable single body.
  void readDamping(const Source& s, SingleBodyObject* single) {
    std::vector<double> values;
    if (numbers(s, {"linear_damping", "linearDamping"}, values)) {
      if (values.size() != 1)
        s.element.errorMessage("the attribute 'linear_damping' should be one number");
      else
        single->setLinearDamping(values[0]);
    }
    if (numbers(s, {"angular_damping", "angularDamping"}, values)) {
      if (values.size() != 3)
        s.element.errorMessage("the attribute 'angular_damping' should have 3 numbers, not " +
                               std::to_string(values.size()));
      else
        single->setAngularDamping(Mat<3, 1>{values[0], values[1], values[2]});
    }
    std::string mode;
    if (text(s, {"gyroscopic_mode", "gyroscopicMode"}, mode)) {
      if (mode == "implicit_body") {
        single->setGyroscopicMode(IMPLICIT_GYROSCOPIC_FORCE_BODY);
      } else if (mode == "implicit_world") {
        single->setGyroscopicMode(IMPLICIT_GYROSCOPIC_FORCE_WORLD);
      } else if (mode == "explicit") {
        single->setGyroscopicMode(EXPLICIT_GYROSCOPIC_FORCE);
      } else if (mode == "none") {
        single->setGyroscopicMode(NO_GYROSCOPIC_FORCE);
      } else {
        s.element.errorMessage("Unknown gyroscopic mode: \"" + mode +
                               "\". Available modes are: implicit_body, implicit_world, explicit, none");
      }
    }
  }

  // A vector attribute of exactly n numbers into out; false when absent or
  // of another length (a located message).
  static bool vectorOf(const VorSimTinyXmlWrapper& e, const char* snake, const char* camel, size_t n, VecDyn& out) {
    std::vector<double> items;
    const char* name = snake;
    if (!xml::readNumbersIfExists(e, snake, items)) {
      name = camel;
      if (!xml::readNumbersIfExists(e, camel, items)) return false;
    }
    if (items.size() != n) {
      e.errorMessage(std::string(name) + " has " + std::to_string(items.size()) + " numbers, the system needs " +
                     std::to_string(n));
      return false;
    }
    out.resize(n);
    for (size_t i = 0; i < n; ++i) out[i] = items[i];
    return true;
  }

  // A robot's actuation: "mode" (force_control, pd_plus_feedforward_torque),
  // "p_gain", "d_gain", "vel_target", "force" (one number per degree of
  // freedom) and "pos_target" (one per generalized coordinate). A gain or
  // target left out keeps the robot's present one.
  void readControl(const VorSimTinyXmlWrapper& e, Object* object) {
    auto* system = dynamic_cast<ArticulatedSystem*>(object);
    if (system == nullptr) {
      e.errorMessage("control is only for articulated systems");
      return;
    }
    std::string mode;
    if (e.getAttributeIfExists("mode", mode)) {
      if (mode == "force_control") {
        system->setControlMode(ArticulatedSystem::FORCE_CONTROL);
      } else if (mode == "pd_plus_feedforward_torque") {
        system->setControlMode(ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE);
      } else {
        e.errorMessage("Unknown control mode: \"" + mode +
                       "\". Available modes are: force_control, pd_plus_feedforward_torque");
        return;
      }
    }
    const size_t dof = system->getDOF(), gcDim = system->getGeneralizedCoordinateDim();
    VecDyn p = system->pGain, d = system->dGain;
    const bool hasP = vectorOf(e, "p_gain", "pGain", dof, p), hasD = vectorOf(e, "d_gain", "dGain", dof, d);
    if (hasP || hasD) {
      if (p.n != dof) p.setZero(dof);
      if (d.n != dof) d.setZero(dof);
      system->setPdGains(p, d);
    }
    VecDyn q = system->posTarget, u = system->velTarget;
    const bool hasQ = vectorOf(e, "pos_target", "posTarget", gcDim, q),
               hasU = vectorOf(e, "vel_target", "velTarget", dof, u);
    if (hasQ || hasU) {
      if (q.n != gcDim) q = system->getGeneralizedCoordinate();
      if (u.n != dof) u.setZero(dof);
      system->setPdTarget(q, u);
    }
    VecDyn tau;
    if (vectorOf(e, "force", "force", dof, tau)) system->setGeneralizedForce(tau);
  }

  void readState(const VorSimTinyXmlWrapper& state, Object* object, SingleBodyObject* single) {
    if (auto* system = dynamic_cast<ArticulatedSystem*>(object)) {
      VecDyn q;
      if (state.getAttributeIfExists("qpos", q)) {
        if (q.n != system->getGeneralizedCoordinateDim())
          state.errorMessage("qpos has " + std::to_string(q.n) + " numbers, the system " +
                             std::to_string(system->getGeneralizedCoordinateDim()) + " generalized coordinates");
        else
          system->setGeneralizedCoordinate(q);
      }
      VecDyn u;
      if (state.getAttributeIfExists("qvel", u)) {
        if (u.n != system->getDOF())
          state.errorMessage("qvel has " + std::to_string(u.n) + " numbers, the system " +
                             std::to_string(system->getDOF()) + " degrees of freedom");
        else
          system->setGeneralizedVelocity(u);
      }
      return;
    }
    if (single == nullptr || single->getObjectType() == GROUND) return;
    // The orientation first: setting the position places the centre of mass
    // with the orientation that holds at that moment.
    Mat<4, 1> quat;
    if (xml::readVectorIfExists(state, "quat", quat)) single->setOrientation(quat);
    Mat<3, 1> pos;
    if (xml::readVectorIfExists(state, "pos", pos)) single->setPosition(pos);
    Mat<3, 1> v = single->getLinearVelocity(), w = single->getAngularVelocity();
    const Source s{state, nullptr};
    const bool haveV = vector(s, {"lin_vel", "linVel"}, v);
    const bool haveW = vector(s, {"ang_vel", "angVel"}, w);
    if (haveV || haveW) single->setVelocity(v[0], v[1], v[2], w[0], w[1], w[2]);
  }

  Object* readMesh(const Source& s, const std::string& material, size_t group, size_t mask) {
    std::string name;
    if (!text(s, {"file_name", "fileName", "file"}, name)) {
      s.element.getAttributeMust<std::string>("file_name");
      return nullptr;
    }
    const std::string path = file(s.element, name, "Could not find the mesh file: ");
    if (path.empty()) return nullptr;
    const double mass = required(s, {"mass"});
    double scale = 1.0;
    number(s, {"scale"}, scale);
    Mat<3, 1> com{0.0, 0.0, 0.0};
    vector(s, {"com"}, com);
    Mat<3, 3> I;
    if (inertia(s, I) && I.squaredNorm() != 0.0)
      return world_.addMesh(path, mass, I, com, scale, material, group, mask);
    return world_.addMesh(path, mass, scale, material, group, mask);
  }

  Object* readCompound(const Source& s, size_t group, size_t mask) {
    std::vector<Compound::CompoundObjectChild> children;
    auto lists = s.element.getChildren("children");
    if (!lists.empty())
      children = readCompoundChildren(lists[0], false);
    else if (s.objectClass)
      children = s.objectClass->children;
    else
      s.element.getChildrenMust("children");
    world_.flattenCompoundClass(children);
    const double mass = required(s, {"mass"});
    Mat<3, 1> com{0.0, 0.0, 0.0};
    vector(s, {"com"}, com);
    Mat<3, 3> I;
    if (!inertia(s, I)) {
      std::string present;
      if (!text(s, {"inertia"}, present)) s.element.getAttributeMust<std::string>("inertia");
      return nullptr;
    }
    return world_.addCompound(children, mass, com, I, group, mask);
  }

  // Mandatory terrain numbers: absent or zero is "missing or zero attribute:
  // NAME".
  double nonZero(const Source& s, std::initializer_list<const char*> names) const {
    double value = 0.0;
    if (!number(s, names, value) || value == 0.0)
      s.element.errorMessage("missing or zero attribute: " + std::string(*names.begin()));
    return value;
  }

  Object* readHeightMap(const Source& s, const std::string& material, size_t group, size_t mask) {
    const VorSimTinyXmlWrapper& e = s.element;
    double centerX = 0.0, centerY = 0.0;
    number(s, {"center_x", "centerX"}, centerX);
    number(s, {"center_y", "centerY"}, centerY);
    std::string heightsText, textFile, pngFile;
    const bool explicitHeights = text(s, {"height"}, heightsText);
    auto sections = e.getChildren("terrain_properties");
    if (sections.empty()) sections = e.getChildren("terrainProperties");
    const bool generated = !sections.empty();
    const bool fromText = text(s, {"text"}, textFile);
    const bool fromPng = text(s, {"png"}, pngFile);
    const int sources = int(explicitHeights) + int(generated) + int(fromText) + int(fromPng);
    if (sources != 1) {
      e.errorMessage(sources == 0 ? "Height map in " + e.getFullTree() +
                                        " does not have a proper initialization properties. Need one of: height, "
                                        "terrain_properties, text, and png"
                                  : "Height map in " + e.getFullTree() +
                                        " has more than one source of heights. Give one of: height, "
                                        "terrain_properties, text, and png");
      return nullptr;
    }

    if (explicitHeights) {
      const size_t xSamples = samples(s, {"x_sample", "xSample"});
      const size_t ySamples = samples(s, {"y_sample", "ySample"});
      const double xSize = required(s, {"x_size", "xSize"});
      const double ySize = required(s, {"y_size", "ySize"});
      std::vector<double> heights;
      numbers(s, {"height"}, heights);
      if (heights.size() != xSamples * ySamples) {
        e.errorMessage("the height map has " + std::to_string(heights.size()) + " heights; x_sample * y_sample is " +
                       std::to_string(xSamples * ySamples));
        return nullptr;
      }
      return world_.addHeightMap(xSamples, ySamples, xSize, ySize, centerX, centerY, heights, material, group, mask);
    }
    if (generated) {
      const VorSimTinyXmlWrapper& t = sections[0];
      // Terrain numbers in the section; sizes and samples there or on the map.
      const Source ts{t, nullptr};
      TerrainProperties p;
      p.zScale = nonZero(ts, {"z_scale", "zScale"});
      p.fractalOctaves = size_t(nonZero(ts, {"fractal_octaves", "fractalOctaves"}));
      p.fractalLacunarity = nonZero(ts, {"fractal_lacunarity", "fractalLacunarity"});
      p.fractalGain = nonZero(ts, {"fractal_gain", "fractalGain"});
      p.stepSize = nonZero(ts, {"step_size", "stepSize"});
      number(ts, {"height_offset", "heightOffset"}, p.heightOffset);
      number(ts, {"frequency"}, p.frequency);
      double seed = 0.0;
      if (number(ts, {"seed"}, seed)) p.seed = uint32_t(seed);
      const Source& sizes = hasAny(ts, {"x_size", "xSize"}) ? ts : s;
      p.xSize = required(sizes, {"x_size", "xSize"});
      p.ySize = required(hasAny(ts, {"y_size", "ySize"}) ? ts : s, {"y_size", "ySize"});
      p.xSamples = samples(hasAny(ts, {"x_sample", "xSample"}) ? ts : s, {"x_sample", "xSample"});
      p.ySamples = samples(hasAny(ts, {"y_sample", "ySample"}) ? ts : s, {"y_sample", "ySample"});
      return world_.addHeightMap(centerX, centerY, p, material, group, mask);
    }
    if (fromText) {
      const std::string path = file(e, textFile, "Could not find the height map file: ");
      if (path.empty()) return nullptr;
      return world_.addHeightMap(path, centerX, centerY, material, group, mask);
    }
    const std::string path = file(e, pngFile, "Could not find the height map file: ");
    if (path.empty()) return nullptr;
    const double xSize = required(s, {"x_size", "xSize"});
    const double ySize = required(s, {"y_size", "ySize"});
    const double scale = nonZero(s, {"z_scale", "zScale", "height_scale", "heightScale"});
    const double offset = nonZero(s, {"z_offset", "zOffset"});
    return world_.addHeightMap(path, centerX, centerY, xSize, ySize, scale, offset, material, group, mask);
  }

  bool hasAny(const Source& s, std::initializer_list<const char*> names) const {
    std::string value;
    return text(s, names, value);
  }

  size_t samples(const Source& s, std::initializer_list<const char*> names) const {
    const double value = required(s, names);
    if (value < 1.0 || value != double(size_t(value))) {
      s.element.errorMessage("the attribute '" + std::string(*names.begin()) + "' must be a positive whole number");
      return 1;
    }
    return size_t(value);
  }

  Object* readArticulatedSystem(const Source& s, size_t group, size_t mask) {
    std::string urdf, resDir;
    if (!text(s, {"urdf_path", "urdfPath"}, urdf)) {
      s.element.errorMessage("urdf_path must be defined for \"articulated_system\"");
      return nullptr;
    }
    const std::string path = file(s.element, urdf, "Could not find URDF file: ");
    if (path.empty()) return nullptr;
    if (text(s, {"res_dir", "resDir"}, resDir) && !resDir.empty() && resDir[0] != '/' &&
        !std::ifstream(resDir).good() && std::ifstream(directory_ + "/" + resDir).good())
      resDir = directory_ + "/" + resDir;
    return world_.addArticulatedSystem(path, resDir, {}, group, mask);
  }

  void readWire(const VorSimTinyXmlWrapper& w) {
    const std::string type = w.getAttributeMust<std::string>("type");
    const double length = xml::readNumber(w, "length");
    auto ends = w.getChildren("object");
    if (ends.empty()) {
      ends = w.getChildren("object1");
      for (const VorSimTinyXmlWrapper& o : w.getChildren("object2")) ends.push_back(o);
    }
    if (ends.size() != 2) {
      w.errorMessage("a wire needs two \"object\" elements, not " + std::to_string(ends.size()));
      return;
    }
    Object* objects[2] = {nullptr, nullptr};
    size_t local[2] = {0, 0};
    Mat<3, 1> pos[2];
    for (size_t k = 0; k < 2; ++k)
      if (!readWireEnd(ends[k], objects[k], local[k], pos[k])) return;

    LengthConstraint* wire = nullptr;
    if (type == "compliant") {
      const double stiffness = xml::readNumber(w, "stiffness");
      wire = world_.addCompliantWire(objects[0], int(local[0]), pos[0].e(), objects[1], int(local[1]), pos[1].e(),
                                     length, stiffness);
    } else if (type == "stiff") {
      wire = world_.addStiffWire(objects[0], local[0], pos[0].e(), objects[1], local[1], pos[1].e(), length);
    } else if (type == "custom") {
      auto* custom = world_.addCustomWire(objects[0], local[0], pos[0].e(), objects[1], local[1], pos[1].e(), length);
      double tension = 0.0;
      if (xml::readNumberIfExists(w, "tension", tension)) custom->setTension(tension);
      wire = custom;
    } else {
      w.errorMessage("Unknown wire type: \"" + type + "\". Available types are: compliant, stiff, custom");
      return;
    }
    std::string stretch;
    if (w.getAttributeIfExists("stretch_type", stretch)) {
      if (stretch == "both")
        wire->setStretchType(LengthConstraint::BOTH);
      else if (stretch == "stretch_only")
        wire->setStretchType(LengthConstraint::STRETCH_ONLY);
      else if (stretch == "compression_only")
        wire->setStretchType(LengthConstraint::COMPRESSION_ONLY);
      else
        w.errorMessage("Unknown stretch type: \"" + stretch +
                       "\". Available types are: both, stretch_only, compression_only");
    }
    std::string name;
    if (w.getAttributeIfExists("name", name)) wire->setName(name);
  }

  // One end of a wire: the object by name, its body (local_index, or the
  // body of a robot's frame) and the mount point in that body's frame (given
  // in the frame, for a frame).
  bool readWireEnd(const VorSimTinyXmlWrapper& o, Object*& object, size_t& local, Mat<3, 1>& pos) {
    const std::string name = o.getAttributeMust<std::string>("name");
    object = world_.getObject(name);
    if (object == nullptr) {
      o.errorMessage("could not find object \"" + name + "\"");
      return false;
    }
    pos = {0.0, 0.0, 0.0};
    xml::readVectorIfExists(o, "pos", pos);
    auto* system = dynamic_cast<ArticulatedSystem*>(object);
    std::string frameName;
    if (o.getAttributeIfExists("frame", frameName)) {
      if (system == nullptr) {
        o.errorMessage("The keyword 'frame' only for an articulated system.");
        return false;
      }
      const size_t f = system->getFrameIdxByName(frameName);
      if (f == ArticulatedSystem::kNone) {
        o.errorMessage("the articulated system \"" + name + "\" has no frame named \"" + frameName + "\"");
        return false;
      }
      const CoordinateFrame& frame = system->getFrames()[f];
      Mat<3, 1> inBody;
      matvecmul(frame.orientation, pos, inBody);
      for (size_t k = 0; k < 3; ++k) pos[k] = inBody[k] + frame.position[k];
      local = frame.parentId;
      return true;
    }
    local = 0;
    o.getAttributeIfExists("local_index", local);
    const size_t bodies = system ? system->getNumberOfBodies() : 1;
    if (local >= bodies) {
      o.errorMessage("local_index " + std::to_string(local) + " is out of range: the object \"" + name + "\" has " +
                     std::to_string(bodies) + (bodies == 1 ? " body" : " bodies"));
      return false;
    }
    return true;
  }

  World& world_;
  std::string path_;
  std::string directory_;
  const std::unordered_map<std::string, std::string>& params_;
};

void World::loadVorSimConfig(const std::string& path, const std::unordered_map<std::string, std::string>& params) {
  const std::string text = expandConfigText(path, params, "Could not open the vorsim configuration file: ");
  if (text.empty()) return;
  const VorSimTinyXmlWrapper root(text, "vorsim", path);
  if (root.isDummy()) return;
  IncludeGuard guard(path);
  WorldConfigReader(*this, path, params).read(root);
}

void World::flattenCompoundClass(std::vector<Compound::CompoundObjectChild>& children, size_t depth) {
  std::vector<Compound::CompoundObjectChild> flat;
  for (const Compound::CompoundObjectChild& child : children) {
    if (child.objectType != COMPOUND) {
      flat.push_back(child);
      continue;
    }
    const auto it = xmlObjectClasses_.find(child.name);
    if (it == xmlObjectClasses_.end()) {
      MSG_FATAL("Could not find the object class " << child.name);
      continue;
    }
    if (depth > 32) {
      MSG_FATAL("The object class " << child.name << " contains itself");
      return;
    }
    const XmlObjectClass& objectClass = it->second;
    const auto classText = [&](const char* name, std::string& out) {
      const auto a = objectClass.attributes.find(name);
      if (a == objectClass.attributes.end()) return false;
      out = a->second;
      return true;
    };

    std::vector<Compound::CompoundObjectChild> parts;
    if (objectClass.type == COMPOUND) {
      parts = objectClass.children;
      flattenCompoundClass(parts, depth + 1);
    } else if (isCompoundShape(objectClass.type)) {
      Compound::CompoundObjectChild part;
      part.name = child.name;
      part.objectType = objectClass.type;
      std::string text;
      std::vector<double> size;
      if (classText("dimension", text) || classText("dim", text)) {
        xml::parseNumbers(text, size);
      } else {
        double value = 0.0;
        if (classText("radius", text) && xml::parseDouble(text, value)) size.push_back(value);
        if (classText("height", text) && xml::parseDouble(text, value)) size.push_back(value);
      }
      const size_t needed = objectClass.type == BOX ? 3 : objectClass.type == SPHERE ? 1 : 2;
      if (size.size() < needed) {
        MSG_FATAL("The object class " << child.name << " requires a dimension attribute");
        continue;
      }
      for (size_t i = 0; i < size.size() && i < 4; ++i) part.objectParam[i] = size[i];
      if (classText("material", text)) part.material = text;
      classText("appearance", part.appearance);
      parts.push_back(part);
    } else {
      MSG_FATAL("The object class " << child.name << " is of a type that a compound cannot hold");
      continue;
    }

    // The class's parts, placed by the referring child's pose.
    for (Compound::CompoundObjectChild part : parts) {
      Mat<3, 1> p;
      matvecmul(child.rotation, part.position, p);
      for (size_t k = 0; k < 3; ++k) part.position[k] = p[k] + child.position[k];
      const Mat<3, 3> r = part.rotation;
      matmul(child.rotation, r, part.rotation);
      if (!child.material.empty()) part.material = child.material;
      if (!child.appearance.empty()) part.appearance = child.appearance;
      flat.push_back(part);
    }
  }
  children = std::move(flat);
}

}  // namespace vorsim
