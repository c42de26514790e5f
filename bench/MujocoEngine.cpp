// MuJoCo built from a scene description: the scene is written as an MJCF
// document in memory and compiled through a virtual file system. Every free
// body is a body with a free joint; walls and the ground plane are geoms of the
// world body. Friction is per geom (the pair takes the larger, all equal here);
// restitution has no parameter of its own and is set through the contact's
// damping ratio (see restitutionDampRatio).
#include "Engines.hpp"

#ifdef VORSIM_BENCH_HAVE_MUJOCO

#include <mujoco/mujoco.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace vorsim_bench {

namespace {

const char* solverName(int s) { return s == 0 ? "PGS" : s == 1 ? "CG" : "Newton"; }
const char* coneName(int c) { return c == 0 ? "pyramidal" : "elliptic"; }
const char* integratorName(int i) { return i == 0 ? "Euler" : i == 1 ? "RK4" : "implicit"; }
const char* jacobianName(int j) { return j == 0 ? "dense" : j == 1 ? "sparse" : "auto"; }

// A contact with solref (timeconst, dampratio) behaves, at full impedance, as a
// spring-damper of damping ratio `dampratio`; a damped oscillator that leaves
// the contact after half a period has restitution exp(-pi z / sqrt(1 - z^2)).
double restitutionDampRatio(double e) {
  if (e <= 0) return 1.0;
  const double l = std::log(e);
  return -l / std::sqrt(M_PI * M_PI + l * l);
}

// MuJoCo's default error handler waits for a key press; a benchmark run
// without a terminal must end instead.
void onMujocoError(const char* message) {
  std::fprintf(stderr, "MuJoCo error: %s\n", message);
  std::fflush(stdout);
  std::_Exit(3);
}

class MujocoEngine : public Engine {
 public:
  explicit MujocoEngine(const MujocoSettings& s) : s_(s) { mju_user_error = onMujocoError; }
  ~MujocoEngine() override {
    if (data_) mj_deleteData(data_);
    if (model_) mj_deleteModel(model_);
  }

  std::string name() const override { return "MuJoCo"; }

  std::string settings() const override {
    char text[320];
    std::snprintf(text, sizeof text,
                  "%s solver, %s cone, max %d iterations, tolerance %g, %s integrator, %s Jacobian%s, "
                  "solref (0.02, %g), solimp default",
                  solverName(s_.solver), coneName(s_.cone), s_.iterations, s_.tolerance, integratorName(s_.integrator),
                  model_ ? (mj_isSparse(model_) ? "sparse" : "dense") : jacobianName(s_.jacobian),
                  s_.warmstart ? "" : ", no warm start", dampRatio_);
    return text;
  }

  void build(const SceneDesc& scene) override {
    if (scene.hasRobot && scene.robot.contact) return buildRobotsInContact(scene);
    if (scene.hasRobot) return buildRobot(scene);
    n_ = scene.bodies.size();
    dampRatio_ = restitutionDampRatio(scene.restitution);
    const std::string xml = makeXml(scene);
    // For looking at the model in MuJoCo's own tools.
    if (const char* dump = std::getenv("VORSIM_BENCH_DUMP_MJCF")) {
      std::ofstream out(std::string(dump) + "_" + scene.key + ".xml");
      out << xml;
    }

    auto vfs = std::make_unique<mjVFS>();
    mj_defaultVFS(vfs.get());
    const char* file = "scene.xml";
    if (mj_makeEmptyFileVFS(vfs.get(), file, int(xml.size())) != 0) throw std::runtime_error("MuJoCo VFS full");
    const int idx = mj_findFileVFS(vfs.get(), file);
    std::memcpy(vfs->filedata[idx], xml.data(), xml.size());
    char error[1000] = "";
    model_ = mj_loadXML(file, vfs.get(), error, sizeof error);
    mj_deleteVFS(vfs.get());
    if (!model_) throw std::runtime_error(std::string("MuJoCo could not load the scene: ") + error);
    data_ = mj_makeData(model_);

    // qvel of a free joint: linear velocity in the world frame, angular
    // velocity in the body frame (the bodies start unrotated).
    for (size_t i = 0; i < n_; ++i) {
      const int j = model_->body_jntadr[i + 1];
      const int a = model_->jnt_dofadr[j];
      for (int k = 0; k < 3; ++k) {
        data_->qvel[a + k] = scene.bodies[i].linVel[k];
        data_->qvel[a + 3 + k] = scene.bodies[i].angVel[k];
      }
      qposAdr_.push_back(model_->jnt_qposadr[j]);
      dofAdr_.push_back(a);
    }
    mj_forward(model_, data_);
  }

  void step() override {
    // PD control as applied generalized forces, from the state of the start
    // of the step.
    for (const PdJoint& j : pd_)
      data_->qfrc_applied[j.dof] = -kp_ * (data_->qpos[j.qpos] - j.target) - kd_ * data_->qvel[j.dof];
    mj_step(model_, data_);
  }

  void position(size_t i, double out[3]) const override {
    if (!bases_.empty()) {
      for (int k = 0; k < 3; ++k) out[k] = data_->qpos[bases_[i] + k];
      return;
    }
    if (robot_) {
      // The centre of mass of the state after the step (mj_step leaves the
      // one of its start).
      mj_forward(model_, data_);
      for (int k = 0; k < 3; ++k) out[k] = data_->subtree_com[k];
      return;
    }
    for (int k = 0; k < 3; ++k) out[k] = data_->qpos[qposAdr_[i] + k];
  }
  void velocity(size_t i, double out[3]) const override {
    if (robot_) {
      for (int k = 0; k < 3; ++k) out[k] = data_->qvel[k];
      return;
    }
    for (int k = 0; k < 3; ++k) out[k] = data_->qvel[dofAdr_[i] + k];
  }
  int contactCount() const override { return data_->ncon; }
  double deepestPenetration() const override {
    double deepest = 0.0;
    for (int c = 0; c < data_->ncon; ++c) deepest = std::max(deepest, -data_->contact[c].dist);
    return deepest;
  }
  double energy() const override {
    if (!robot_) return NAN;
    // Energies are computed only while the flag is on; it stays off for the
    // timed steps.
    model_->opt.enableflags |= mjENBL_ENERGY;
    mj_forward(model_, data_);
    mj_energyPos(model_, data_);
    mj_energyVel(model_, data_);
    model_->opt.enableflags &= ~mjENBL_ENERGY;
    return data_->energy[0] + data_->energy[1];
  }
  int solverIterations() const override { return data_->solver_iter; }

  std::string warnings() const override {
    std::string w;
    static const char* const names[] = {"singular inertia",
                                        "contact buffer full",
                                        "constraint buffer full",
                                        "visual geom buffer full",
                                        "bad qpos",
                                        "bad qvel",
                                        "bad qacc",
                                        "bad ctrl"};
    constexpr int kNames = int(sizeof names / sizeof names[0]);
    for (int k = 0; k < mjNWARNING; ++k)
      if (data_ && data_->warning[k].number > 0)
        w += std::string(k < kNames ? names[k] : "warning") + " x" + std::to_string(data_->warning[k].number) + "; ";
    return w;
  }

 private:
  // The robot file as MuJoCo's URDF import reads it, with what it needs to
  // simulate the same bodies as vorsim: no visual or collision elements (it
  // cannot read some of them, and would derive the inertia of links without
  // <inertial> from them), no inertia on links of zero mass (vorsim gives
  // them none), links on fixed joints kept as bodies, a lower bound on the
  // mass of the humanoid's massless links that MuJoCo needs, and a floating
  // or fixed joint from "world" to the root link. Contact, friction loss and
  // the panda's mimic equality are switched off: the scenes are contact-free
  // and vorsim's robots have neither. Joint limits stay on, as in vorsim: the
  // arm swings into its limits under gravity.
  void buildRobot(const SceneDesc& scene) {
    const RobotDesc& r = scene.robot;
    robot_ = true;
    kp_ = r.kp;
    kd_ = r.kd;
    std::string text =
        withoutMasslessInertials(withoutElements(withoutElements(fileText(robotFile(r)), "visual"), "collision"));
    const std::string root = rootLink(text);
    const size_t end = text.find('>', text.find("<robot")) + 1;
    text.insert(end,
                "<mujoco><compiler fusestatic=\"false\" inertiafromgeom=\"false\" discardvisual=\"true\" "
                "boundmass=\"1e-13\" boundinertia=\"1e-13\"/></mujoco><link name=\"world\"/><joint "
                "name=\"bench_base\" type=\"" +
                    std::string(r.floating ? "floating" : "fixed") + "\"><origin xyz=\"0 0 " +
                    std::to_string(r.floating ? 0.0 : r.baseHeight) + "\"/><parent link=\"world\"/><child link=\"" +
                    root + "\"/></joint>");

    char error[1000] = "";
    model_ = loadFromText("robot.urdf", text, error, sizeof error);
    if (!model_) throw std::runtime_error(std::string("MuJoCo could not load the robot: ") + error);
    model_->opt.timestep = scene.dt;
    model_->opt.gravity[0] = model_->opt.gravity[1] = 0.0;
    model_->opt.gravity[2] = scene.gravity;
    model_->opt.integrator = s_.integrator;
    model_->opt.disableflags |= mjDSBL_CONTACT | mjDSBL_EQUALITY | mjDSBL_FRICTIONLOSS;
    data_ = mj_makeData(model_);

    std::vector<std::string> names;
    for (int j = 0; j < model_->njnt; ++j)
      if (model_->jnt_type[j] == mjJNT_HINGE || model_->jnt_type[j] == mjJNT_SLIDE)
        names.push_back(mj_id2name(model_, mjOBJ_JOINT, j));
    for (int j = 0; j < model_->njnt; ++j) {
      const int q = model_->jnt_qposadr[j];
      if (model_->jnt_type[j] == mjJNT_FREE) {
        for (int k = 0; k < 7; ++k) data_->qpos[q + k] = k == 2 ? r.baseHeight : (k == 3 ? 1.0 : 0.0);
      } else if (model_->jnt_type[j] == mjJNT_HINGE || model_->jnt_type[j] == mjJNT_SLIDE) {
        data_->qpos[q] =
            robotJointStart(r, names, mj_id2name(model_, mjOBJ_JOINT, j), model_->jnt_type[j] == mjJNT_SLIDE);
        if (r.kp > 0.0 || r.kd > 0.0) pd_.push_back({q, model_->jnt_dofadr[j], 0.0});
      }
    }
    mj_forward(model_, data_);
  }

  // Robots in contact: the robot file as MuJoCo's URDF import reads it, with
  // its collision shapes (the same 40 boxes, cylinders and spheres vorsim
  // builds), written back as MJCF; its body tree is copied once per
  // placement with prefixed names, next to the ground plane and the walls.
  // Each copy collides with everything but itself (contype/conaffinity bits
  // of its own), as in vorsim; every geom has the scene's friction.
  void buildRobotsInContact(const SceneDesc& scene) {
    const RobotDesc& r = scene.robot;
    robot_ = true;
    kp_ = r.kp;
    kd_ = r.kd;
    std::string text = withoutMasslessInertials(withoutElements(fileText(robotFile(r)), "visual"));
    const std::string root = rootLink(text);
    const size_t end = text.find('>', text.find("<robot")) + 1;
    text.insert(end,
                "<mujoco><compiler fusestatic=\"false\" inertiafromgeom=\"false\" discardvisual=\"true\"/></mujoco>"
                "<link name=\"world\"/><joint name=\"base_joint\" type=\"floating\"><parent link=\"world\"/>"
                "<child link=\"" +
                    root + "\"/></joint>");
    char error[1000] = "";
    mjModel* single = loadFromText("robot.urdf", text, error, sizeof error);
    if (!single) throw std::runtime_error(std::string("MuJoCo could not load the robot: ") + error);
    const std::string saved = std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp") +
                              "/vorsim_bench_robot_" + std::to_string(::getpid()) + ".xml";
    mj_saveLastXML(saved.c_str(), single, error, sizeof error);
    mj_deleteModel(single);
    const std::string model = fileText(saved);
    std::remove(saved.c_str());
    const size_t treeBegin = model.find('>', model.find("<worldbody")) + 1;
    const std::string tree = model.substr(treeBegin, model.find("</worldbody>") - treeBegin);

    std::ostringstream x;
    x.precision(17);
    x << "<mujoco model=\"robots\">\n  <compiler angle=\"radian\" autolimits=\"true\" inertiafromgeom=\"false\"/>\n";
    x << "  <size nconmax=\"2000\" njmax=\"8000\" nstack=\"60000000\"/>\n";
    x << "  <option timestep=\"" << scene.dt << "\" gravity=\"0 0 " << scene.gravity << "\" integrator=\""
      << integratorName(s_.integrator) << "\" solver=\"" << solverName(s_.solver) << "\" cone=\"" << coneName(s_.cone)
      << "\" jacobian=\"" << jacobianName(s_.jacobian) << "\" iterations=\"" << s_.iterations << "\" tolerance=\""
      << s_.tolerance << "\">\n";
    if (!s_.warmstart) x << "    <flag warmstart=\"disable\"/>\n";
    x << "  </option>\n";
    const TerrainDesc& g = scene.terrain;
    double low = 0.0, high = 0.0;
    if (!g.grid.empty()) {
      low = *std::min_element(g.grid.begin(), g.grid.end());
      high = *std::max_element(g.grid.begin(), g.grid.end());
      x << "  <asset><hfield name=\"terrain\" nrow=\"" << g.ny << "\" ncol=\"" << g.nx << "\" size=\"" << 0.5 * g.sx
        << ' ' << 0.5 * g.sy << ' ' << std::max(high - low, 1e-6) << " 0.5\"/></asset>\n";
    }
    x << "  <worldbody>\n";
    if (g.grid.empty())
      x << "    <geom name=\"ground\" type=\"plane\" size=\"0 0 1\"/>\n";
    else
      x << "    <geom name=\"ground\" type=\"hfield\" hfield=\"terrain\" pos=\"0 0 " << low << "\"/>\n";
    for (const WallDesc& w : scene.walls)
      x << "    <geom type=\"box\" pos=\"" << w.pos[0] << ' ' << w.pos[1] << ' ' << w.pos[2] << "\" size=\""
        << 0.5 * w.dims[0] << ' ' << 0.5 * w.dims[1] << ' ' << 0.5 * w.dims[2] << "\"/>\n";
    for (size_t k = 0; k < r.placements.size(); ++k) {
      std::string copy = tree;
      const std::string prefix = "name=\"r" + std::to_string(k) + "_";
      for (size_t at = copy.find("name=\""); at != std::string::npos; at = copy.find("name=\"", at + prefix.size()))
        copy.replace(at, 6, prefix);
      x << copy;
    }
    x << "  </worldbody>\n</mujoco>\n";
    model_ = loadFromText("robots.xml", x.str(), error, sizeof error);
    if (!model_) throw std::runtime_error(std::string("MuJoCo could not load the robots: ") + error);
    data_ = mj_makeData(model_);
    if (!g.grid.empty()) {
      // Row r of MuJoCo's field lies at y = -sy/2 + r sy/(nrow-1); elevations
      // are data times the field's height, above the geom's position.
      const double range = std::max(high - low, 1e-6);
      for (size_t k = 0; k < g.grid.size(); ++k) model_->hfield_data[k] = float((g.grid[k] - low) / range);
      mj_forward(model_, data_);
      // The field must come back under vertical rays at the sample points
      // (to float precision: MuJoCo keeps elevations as floats).
      for (size_t r = 5; r < g.ny; r += 37)
        for (size_t c = 7; c < g.nx; c += 41) {
          if (std::hypot(g.x(c), g.y(r)) < 1.5) continue;  // the robot stands there
          const mjtNum from[3] = {g.x(c), g.y(r), high + 1.0}, down[3] = {0, 0, -1};
          int hit = -1;
          const mjtNum d = mj_ray(model_, data_, from, down, nullptr, 1, -1, &hit);
          if (hit != 0 || std::abs(high + 1.0 - d - g.grid[r * g.nx + c]) > 1e-5 * std::max(1.0, range))
            throw std::runtime_error("MuJoCo's height field does not reproduce the scene's grid");
        }
    }

    // Collision bits: the world's geoms are type 1 and meet every robot; copy
    // k is type 2^(k+1) and meets all types but its own.
    const int all = (1 << (int(r.placements.size()) + 1)) - 1;
    for (int g = 0; g < model_->ngeom; ++g) {
      model_->geom_friction[3 * g] = scene.friction;
      const int body = model_->geom_bodyid[g];
      if (body == 0) {
        model_->geom_contype[g] = 1;
        model_->geom_conaffinity[g] = all;
        continue;
      }
      const int copy = rootIndex(model_->body_rootid[body]);
      model_->geom_contype[g] = 1 << (copy + 1);
      model_->geom_conaffinity[g] = all & ~(1 << (copy + 1));
    }
    for (int j = 0; j < model_->njnt; ++j) {
      const int q = model_->jnt_qposadr[j];
      const int copy = rootIndex(model_->body_rootid[model_->jnt_bodyid[j]]);
      if (model_->jnt_type[j] == mjJNT_FREE) {
        const auto& at = r.placements[size_t(copy)];
        const double pose[7] = {at[0], at[1], at[2], std::cos(at[3] / 2), 0.0, 0.0, std::sin(at[3] / 2)};
        for (int k = 0; k < 7; ++k) data_->qpos[q + k] = pose[k];
        bases_.push_back(q);
      } else if (model_->jnt_type[j] == mjJNT_HINGE) {
        std::string name = mj_id2name(model_, mjOBJ_JOINT, j);
        name = name.substr(name.find('_') + 1);
        data_->qpos[q] = robotJointStart(r, {name}, name, false);
        pd_.push_back({q, model_->jnt_dofadr[j], data_->qpos[q]});
      }
    }
    mj_forward(model_, data_);
    static std::string printed;
    if (printed.find(scene.key) == std::string::npos) printRobots(), printed += scene.key;
  }

  // Mass, centre of mass, inertia and collision shapes of the robots as MuJoCo
  // holds them, printed once per scene next to vorsim's print of the same.
  void printRobots() const {
    double mass = 0.0, com[3] = {0, 0, 0}, trace = 0.0;
    for (int b = 1; b < model_->nbody; ++b) {
      mass += model_->body_mass[b];
      for (int k = 0; k < 3; ++k) com[k] += model_->body_mass[b] * data_->xipos[3 * b + k];
    }
    for (double& c : com) c /= mass;
    for (int b = 1; b < model_->nbody; ++b) {
      double r2 = 0.0;
      for (int k = 0; k < 3; ++k) r2 += std::pow(data_->xipos[3 * b + k] - com[k], 2);
      trace += model_->body_inertia[3 * b] + model_->body_inertia[3 * b + 1] + model_->body_inertia[3 * b + 2] +
               2.0 * model_->body_mass[b] * r2;
    }
    int count[3] = {0, 0, 0};  // boxes, cylinders, spheres of the robots
    for (int g = 0; g < model_->ngeom; ++g) {
      if (model_->geom_bodyid[g] == 0) continue;
      const int type = model_->geom_type[g];
      count[0] += type == mjGEOM_BOX, count[1] += type == mjGEOM_CYLINDER, count[2] += type == mjGEOM_SPHERE;
    }
    std::fprintf(stderr,
                 "\n  MuJoCo robots: mass %.6f kg, centre of mass (%.5f, %.5f, %.5f) m, inertia trace about it %.6f "
                 "kg m^2, %d boxes, %d cylinders, %d spheres\n",
                 mass, com[0], com[1], com[2], trace, count[0], count[1], count[2]);
  }

  // Copy number of the robot whose root body is `rootBody` (copies are laid
  // out one after the other, in placement order).
  int rootIndex(int rootBody) {
    auto at = std::find(roots_.begin(), roots_.end(), rootBody);
    if (at != roots_.end()) return int(at - roots_.begin());
    roots_.push_back(rootBody);
    return int(roots_.size()) - 1;
  }

  static std::string fileText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
  }

  static mjModel* loadFromText(const char* file, const std::string& text, char* error, int errorSize) {
    auto vfs = std::make_unique<mjVFS>();
    mj_defaultVFS(vfs.get());
    if (mj_makeEmptyFileVFS(vfs.get(), file, int(text.size())) != 0) throw std::runtime_error("MuJoCo VFS full");
    std::memcpy(vfs->filedata[mj_findFileVFS(vfs.get(), file)], text.data(), text.size());
    mjModel* m = mj_loadXML(file, vfs.get(), error, errorSize);
    mj_deleteVFS(vfs.get());
    return m;
  }

  static std::string withoutElements(std::string text, const std::string& tag) {
    for (size_t at = text.find("<" + tag); at != std::string::npos; at = text.find("<" + tag, at)) {
      const char after = text[at + tag.size() + 1];
      if (after != ' ' && after != '>' && after != '/' && after != '\n' && after != '\t' && after != '\r') {
        ++at;
        continue;
      }
      const size_t close = text.find('>', at);
      size_t end = close + 1;
      if (text[close - 1] != '/') end = text.find("</" + tag + ">", at) + tag.size() + 3;
      text.erase(at, end - at);
    }
    return text;
  }

  static std::string withoutMasslessInertials(std::string text) {
    for (size_t at = text.find("<inertial"); at != std::string::npos; at = text.find("<inertial", at + 1)) {
      const size_t end = text.find("</inertial>", at) + std::string("</inertial>").size();
      const size_t mass = text.find("<mass", at);
      if (mass == std::string::npos || mass > end) continue;
      const size_t quote = text.find('"', text.find("value", mass)) + 1;
      if (std::stod(text.substr(quote, text.find('"', quote) - quote)) != 0.0) continue;
      text.erase(at, end - at);
    }
    return text;
  }

  // The link that is no joint's child.
  static std::string rootLink(const std::string& text) {
    auto attribute = [&text](size_t from, const std::string& name) {
      const size_t a = text.find('"', text.find(name + "=", from)) + 1;
      return text.substr(a, text.find('"', a) - a);
    };
    std::vector<std::string> links, children;
    for (size_t at = text.find("<link"); at != std::string::npos; at = text.find("<link", at + 1))
      if (text[at + 5] == ' ') links.push_back(attribute(at, "name"));
    for (size_t at = text.find("<child"); at != std::string::npos; at = text.find("<child", at + 1))
      children.push_back(attribute(at, "link"));
    for (const std::string& l : links)
      if (std::find(children.begin(), children.end(), l) == children.end()) return l;
    return {};
  }

  std::string makeXml(const SceneDesc& scene) const {
    std::ostringstream x;
    x.precision(17);
    // Room for the contacts of the densest scene (the bin makes about 2.5 per
    // sphere; a box on boxes up to 8 per box) and for the four pyramidal rows
    // of each. The data holds a dense njmax x njmax matrix, so njmax cannot be
    // generous.
    const size_t conmax = std::min<size_t>(10 * n_ + 100, 2200);
    const size_t jmax = 4 * conmax;
    // The stack holds dense matrices: nv x nv ones for the Newton solver, and
    // nefc x nefc ones for PGS (about 2.8 nefc^2 entries measured on the bin).
    const size_t nv = 6 * n_;
    const size_t stack = std::min<size_t>(std::max(5000000 + 3 * nv * nv, 3 * jmax * jmax), 2000000000);
    x << "<mujoco model=\"bench\">\n";
    x << "  <compiler angle=\"radian\"/>\n";
    x << "  <size nconmax=\"" << conmax << "\" njmax=\"" << jmax << "\" nstack=\"" << stack << "\"/>\n";
    x << "  <option timestep=\"" << scene.dt << "\" gravity=\"0 0 " << scene.gravity << "\" integrator=\""
      << integratorName(s_.integrator) << "\" solver=\"" << solverName(s_.solver) << "\" cone=\"" << coneName(s_.cone)
      << "\" jacobian=\"" << jacobianName(s_.jacobian) << "\" iterations=\"" << s_.iterations << "\" tolerance=\""
      << s_.tolerance << "\">\n";
    if (!s_.warmstart) x << "    <flag warmstart=\"disable\"/>\n";
    x << "  </option>\n";
    x << "  <default><geom friction=\"" << scene.friction << " 0.005 0.0001\" solref=\"0.02 " << dampRatio_
      << "\" condim=\"3\"/></default>\n";
    x << "  <worldbody>\n";
    if (scene.ground) x << "    <geom name=\"ground\" type=\"plane\" size=\"0 0 1\"/>\n";
    for (const WallDesc& w : scene.walls)
      x << "    <geom type=\"box\" pos=\"" << w.pos[0] << ' ' << w.pos[1] << ' ' << w.pos[2] << "\" size=\""
        << 0.5 * w.dims[0] << ' ' << 0.5 * w.dims[1] << ' ' << 0.5 * w.dims[2] << "\"/>\n";
    for (const BodyDesc& b : scene.bodies) {
      x << "    <body pos=\"" << b.pos[0] << ' ' << b.pos[1] << ' ' << b.pos[2] << "\"><freejoint/>";
      if (b.shape == ShapeKind::Sphere)
        x << "<geom type=\"sphere\" size=\"" << b.radius << "\" mass=\"" << b.mass << "\"/>";
      else
        x << "<geom type=\"box\" size=\"" << 0.5 * b.dims[0] << ' ' << 0.5 * b.dims[1] << ' ' << 0.5 * b.dims[2]
          << "\" mass=\"" << b.mass << "\"/>";
      x << "</body>\n";
    }
    x << "  </worldbody>\n</mujoco>\n";
    return x.str();
  }

  struct PdJoint {
    int qpos, dof;
    double target;
  };
  MujocoSettings s_;
  mjModel* model_ = nullptr;
  mjData* data_ = nullptr;
  bool robot_ = false;
  double kp_ = 0.0, kd_ = 0.0;
  std::vector<PdJoint> pd_;
  size_t n_ = 0;
  double dampRatio_ = 1.0;
  std::vector<int> qposAdr_, dofAdr_;
  std::vector<int> bases_, roots_;  // robots in contact: free-joint qpos addresses, root bodies
};

}  // namespace

bool haveMujoco() { return true; }
std::string mujocoVersion() { return mj_versionString(); }

std::vector<MujocoSettings> mujocoCandidates() {
  std::vector<MujocoSettings> c;
  for (int solver = 0; solver < 3; ++solver)
    for (int cone = 0; cone < 2; ++cone) {
      MujocoSettings s;
      s.solver = solver;
      s.cone = cone;
      s.label = std::string(solverName(solver)) + "/" + coneName(cone);
      c.push_back(s);
    }
  // Fewer iterations and a looser tolerance for the fast candidates.
  for (int solver : {0, 1, 2}) {
    MujocoSettings s;
    s.solver = solver;
    s.iterations = solver == 2 ? 10 : 20;
    s.tolerance = 1e-6;
    s.label = std::string(solverName(solver)) + "/pyramidal/" + std::to_string(s.iterations) + "it/tol1e-6";
    c.push_back(s);
  }
  return c;
}

// Picked from a sweep over mujocoCandidates() (see bench/README.md): the
// fastest candidate whose error stays within twice the best MuJoCo error on the
// scene. The bin has 4000 degrees of freedom, where Newton's dense Hessian is
// out of reach and CG with 20 iterations lets the spheres sink 2.7 times
// deeper than the best setting; everywhere else CG is the fastest.
MujocoSettings mujocoChosen(const std::string& sceneKey) {
  MujocoSettings s;
  s.solver = sceneKey == "b" ? 0 : 1;
  s.cone = 0;
  s.iterations = 20;
  s.tolerance = 1e-6;
  s.label = std::string(solverName(s.solver)) + "/pyramidal/20it/tol1e-6";
  return s;
}

std::unique_ptr<Engine> makeMujocoEngine(const MujocoSettings& settings) {
  return std::make_unique<MujocoEngine>(settings);
}

}  // namespace vorsim_bench

#else  // no MuJoCo

namespace vorsim_bench {
bool haveMujoco() { return false; }
std::string mujocoVersion() { return {}; }
std::vector<MujocoSettings> mujocoCandidates() { return {}; }
MujocoSettings mujocoChosen(const std::string&) { return {}; }
std::unique_ptr<Engine> makeMujocoEngine(const MujocoSettings&) { return nullptr; }
}  // namespace vorsim_bench

#endif
