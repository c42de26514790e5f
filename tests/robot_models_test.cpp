// The robots in models/: each loads, and what an engineer would check by hand
// from the file holds. The mass properties are compared with a reference
// computed here from the file's links alone (its own small reading of the XML
// and forward kinematics at the zero pose), not with the loader under test.
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <functional>
#include <map>
#include <set>

#include "test_helpers.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

using namespace vorsim;

namespace {

const std::string kModels = std::string(VORSIM_TEST_DATA_DIR) + "/../../models/";

Eigen::Vector3d vec(const char* text) {
  Eigen::Vector3d v = Eigen::Vector3d::Zero();
  if (text) std::sscanf(text, "%lf %lf %lf", &v[0], &v[1], &v[2]);
  return v;
}

Eigen::Matrix3d rpy(const char* text) {
  const Eigen::Vector3d a = vec(text);
  return (Eigen::AngleAxisd(a[2], Eigen::Vector3d::UnitZ()) * Eigen::AngleAxisd(a[1], Eigen::Vector3d::UnitY()) *
          Eigen::AngleAxisd(a[0], Eigen::Vector3d::UnitX()))
      .toRotationMatrix();
}

double number(const TiXmlElement* e, const char* attribute) {
  double v = 0.0;
  if (e) e->QueryDoubleAttribute(attribute, &v);
  return v;
}

struct Reference {
  double mass = 0.0;
  Eigen::Vector3d com = Eigen::Vector3d::Zero();
  Eigen::Matrix3d inertia = Eigen::Matrix3d::Zero();  // about com, world frame, zero pose
  std::set<std::string> jointNames;
  std::set<std::string> movableChildLinks;
  std::string root;
  size_t movable = 0, collisions = 0;
};

Reference readReference(const std::string& file) {
  TiXmlDocument doc;
  EXPECT_TRUE(doc.LoadFile(file));
  const TiXmlElement* robot = doc.FirstChildElement("robot");
  struct Link {
    double m = 0;
    Eigen::Vector3d c = Eigen::Vector3d::Zero();
    Eigen::Matrix3d I = Eigen::Matrix3d::Zero();
  };
  struct Joint {
    std::string parent;
    Eigen::Vector3d p;
    Eigen::Matrix3d R;
  };
  std::map<std::string, Link> links;
  std::map<std::string, Joint> jointOf;  // by child link
  Reference ref;
  for (auto* l = robot->FirstChildElement("link"); l; l = l->NextSiblingElement("link")) {
    Link link;
    if (auto* in = l->FirstChildElement("inertial")) {
      link.m = number(in->FirstChildElement("mass"), "value");
      const TiXmlElement* o = in->FirstChildElement("origin");
      const Eigen::Matrix3d R = o ? rpy(o->Attribute("rpy")) : Eigen::Matrix3d::Identity();
      link.c = o ? vec(o->Attribute("xyz")) : Eigen::Vector3d::Zero();
      const TiXmlElement* i = in->FirstChildElement("inertia");
      Eigen::Matrix3d I;
      I << number(i, "ixx"), number(i, "ixy"), number(i, "ixz"), number(i, "ixy"), number(i, "iyy"), number(i, "iyz"),
          number(i, "ixz"), number(i, "iyz"), number(i, "izz");
      // A link of mass zero carries no inertia either (panda_link8 and
      // panda_grasptarget list one anyway): it is ignored.
      link.I = link.m == 0.0 ? Eigen::Matrix3d::Zero() : Eigen::Matrix3d(R * I * R.transpose());
    }
    for (auto* c = l->FirstChildElement("collision"); c; c = c->NextSiblingElement("collision")) ++ref.collisions;
    links[l->Attribute("name")] = link;
  }
  for (auto* j = robot->FirstChildElement("joint"); j; j = j->NextSiblingElement("joint")) {
    const TiXmlElement* o = j->FirstChildElement("origin");
    const std::string child = j->FirstChildElement("child")->Attribute("link");
    jointOf[child] = {j->FirstChildElement("parent")->Attribute("link"),
                      o ? vec(o->Attribute("xyz")) : Eigen::Vector3d::Zero(),
                      o ? rpy(o->Attribute("rpy")) : Eigen::Matrix3d::Identity()};
    ref.jointNames.insert(j->Attribute("name"));
    if (std::string(j->Attribute("type")) != "fixed") {
      ++ref.movable;
      ref.movableChildLinks.insert(child);
    }
  }
  // Pose of every link at the zero configuration, the root at the origin.
  std::function<void(const std::string&, Eigen::Matrix3d&, Eigen::Vector3d&)> pose =
      [&](const std::string& name, Eigen::Matrix3d& R, Eigen::Vector3d& p) {
        auto it = jointOf.find(name);
        if (it == jointOf.end()) {
          R.setIdentity();
          p.setZero();
          ref.root = name;
          return;
        }
        Eigen::Matrix3d Rp;
        Eigen::Vector3d pp;
        pose(it->second.parent, Rp, pp);
        R = Rp * it->second.R;
        p = pp + Rp * it->second.p;
      };
  std::vector<std::pair<double, std::pair<Eigen::Vector3d, Eigen::Matrix3d>>> parts;
  for (auto& [name, link] : links) {
    Eigen::Matrix3d R;
    Eigen::Vector3d p;
    pose(name, R, p);
    parts.push_back({link.m, {p + R * link.c, R * link.I * R.transpose()}});
    ref.mass += link.m;
    ref.com += link.m * (p + R * link.c);
  }
  ref.com /= ref.mass;
  for (auto& [m, ci] : parts) {
    const Eigen::Vector3d r = ci.first - ref.com;
    ref.inertia += ci.second + m * (r.squaredNorm() * Eigen::Matrix3d::Identity() - r * r.transpose());
  }
  return ref;
}

struct Expected {
  std::string file;
  size_t bodies, dof, gcDim, geoms;
  double mass;  // the sum of the file's link masses, by hand
  std::vector<std::string> someFrames;
};

class RobotModels : public testing::TestWithParam<Expected> {};

}  // namespace

TEST_P(RobotModels, LoadAndMatchTheFile) {
  const Expected& e = GetParam();
  const Reference ref = readReference(kModels + e.file);
  StdoutCapture quiet;  // the panda's mimic joint is reported
  World world;
  world.addGround(-2.0);
  // Links overlap near their joints; with a collision mask of 0 the robot
  // touches neither itself nor anything else.
  ArticulatedSystem* s = world.addArticulatedSystem(kModels + e.file, "", {}, 1, 0);
  quiet.text();

  EXPECT_EQ(s->nbody, e.bodies);
  EXPECT_EQ(s->nbody, 1 + ref.movable);
  EXPECT_EQ(s->dof, e.dof);
  EXPECT_EQ(s->gcDim, e.gcDim);
  EXPECT_EQ(s->getRootJointType(), Joint::FLOATING);
  EXPECT_EQ(s->getCollisionBodies().size(), e.geoms);
  EXPECT_EQ(s->getCollisionBodies().size(), ref.collisions);
  EXPECT_NEAR(s->getTotalMass(), e.mass, 1e-9);
  EXPECT_NEAR(ref.mass, e.mass, 1e-9);

  // Bodies: the root link and each link on a movable joint.
  std::set<std::string> bodies(s->bodyNames.begin(), s->bodyNames.end());
  std::set<std::string> expectedBodies = ref.movableChildLinks;
  expectedBodies.insert(ref.root);
  EXPECT_EQ(bodies, expectedBodies);
  EXPECT_EQ(s->bodyNames[0], ref.root);
  // Frames: the root's, then one per joint of the file.
  ASSERT_EQ(s->getFrames().size(), 1 + ref.jointNames.size());
  std::set<std::string> frameNames;
  for (size_t i = 1; i < s->getFrames().size(); ++i) frameNames.insert(s->getFrames()[i].name);
  EXPECT_EQ(frameNames, ref.jointNames);
  for (const std::string& name : e.someFrames) EXPECT_NE(s->getFrameIdxByName(name), size_t(-1)) << name;

  // Mass, centre of mass and composite inertia at the zero pose.
  double M = 0;
  Eigen::Vector3d com = Eigen::Vector3d::Zero();
  for (size_t b = 0; b < s->nbody; ++b) M += s->massOf[b], com += s->massOf[b] * s->comW[b].e();
  com /= M;
  Eigen::Matrix3d I = Eigen::Matrix3d::Zero();
  for (size_t b = 0; b < s->nbody; ++b) {
    const Eigen::Matrix3d R = s->rotW[b].e();
    const Eigen::Vector3d r = s->comW[b].e() - com;
    I += R * s->inertiaB[b].e() * R.transpose() +
         s->massOf[b] * (r.squaredNorm() * Eigen::Matrix3d::Identity() - r * r.transpose());
  }
  EXPECT_NEAR(M, ref.mass, 1e-9);
  EXPECT_LT((com - ref.com).norm(), 1e-9) << com.transpose() << " vs " << ref.com.transpose();
  EXPECT_LT((I - ref.inertia).norm(), 1e-9 * ref.inertia.norm()) << I << "\n\n" << ref.inertia;

  // A world with the robot in it steps: out of the ground's reach, it falls
  // freely, its joints at rest relative to each other.
  for (int i = 0; i < 20; ++i) world.integrate();
  const double t = 20 * world.getTimeStep();
  EXPECT_NEAR(s->gc[2], -0.5 * 9.81 * t * t, 1e-9);
  for (size_t i = 6; i < s->dof; ++i) EXPECT_NEAR(s->gv[i], 0.0, 1e-9);
}

INSTANTIATE_TEST_SUITE_P(
    Models, RobotModels,
    testing::Values(
        Expected{"anymal_b/anymal.urdf", 13, 18, 19, 40, 30.421396462, {"LF_HAA", "RH_KFE", "LF_ADAPTER_TO_FOOT"}},
        Expected{"franka_panda/panda.urdf",
                 10,
                 15,
                 16,
                 11,
                 17.96,
                 {"panda_joint1", "panda_finger_joint2", "panda_grasptarget_hand"}},
        Expected{"humanoid_mjcf_port/humanoid.urdf",
                 22,
                 27,
                 28,
                 19,
                 40.84402,
                 {"abdomen_z", "left_elbow", "jointfix_10_33"}},
        Expected{"minitaur/minitaur.urdf",
                 17,
                 22,
                 23,
                 30,
                 6.0,
                 {"motor_front_rightR_joint", "knee_back_leftL_link", "chassis_left_center"}}),
    [](const testing::TestParamInfo<Expected>& info) { return info.param.file.substr(0, info.param.file.find('/')); });

TEST(RobotModelsDetail, PandaMeshesAndAnymalMergedBase) {
  StdoutCapture quiet;
  ArticulatedSystem panda(kModels + "franka_panda/panda.urdf");
  ArticulatedSystem anymal(kModels + "anymal_b/anymal.urdf");
  quiet.text();
  // Every panda collision body is a triangle mesh read from package://meshes.
  for (const auto& d : panda.getCollisionBodies()) EXPECT_EQ(dGeomGetClass(d.colObj), dTriMeshClass);
  EXPECT_EQ(panda.meshData.size(), 11u);
  EXPECT_EQ(panda.jointType[panda.getBodyIdx("panda_leftfinger")], Joint::PRISMATIC);
  EXPECT_EQ(panda.jointLimits[panda.jointNameToGv.at("panda_finger_joint1")][1], 0.04);
  EXPECT_EQ(panda.tauUpper[panda.jointNameToGv.at("panda_joint1")], 87.0);
  // ANYmal's base mass sits in base_inertia, fixed to the root: merged into body 0.
  EXPECT_EQ(anymal.bodyNames[0], "base");
  EXPECT_GT(anymal.massOf[0], 10.0);
  EXPECT_EQ(anymal.getFrames()[anymal.getFrameIdxByName("base_to_base_inertia")].parentId, 0u);
}
