// Constraints inside a robot: pins that close loops the tree cannot express.
// Here pins are located on their bodies; their problems in the step (and joint
// limits) come with the dynamics stage.
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

void ArticulatedSystem::addConstraints(const std::vector<PinConstraintDefinition>& definitions, const VecDyn& config) {
  pinDefinitions = definitions;
  pinConfiguration.resize(config.n);
  pinConfiguration = config;
}

void ArticulatedSystem::initializeConstraints() {
  if (pinDefinitions.empty()) return;
  // The pins are located at the configuration they were described in, and
  // the system stays there.
  if (pinConfiguration.n != gcDim) {
    MSG_FATAL("The configuration of the pin constraints has " << pinConfiguration.n << " entries, but the system has "
                                                              << gcDim << " generalized coordinates");
    pinDefinitions.clear();
    return;
  }
  gc = pinConfiguration;
  updateKinematics();
  cleanContacts();

  auto frameOf = [this](const std::string& name) {
    for (size_t i = 0; i < frames.size(); ++i)
      if (frames[i].bodyName == name) return i;
    MSG_FATAL("Equality constraints - unknown body name: " << name);
    return kNone;
  };

  for (const PinConstraintDefinition& d : pinDefinitions) {
    const size_t f1 = frameOf(d.body1);
    const size_t f2 = frameOf(d.body2);
    if (f1 == kNone || f2 == kNone) continue;
    size_t b1 = frames[f1].parentId, b2 = frames[f2].parentId;

    // World point of the anchor, given in the first frame.
    Mat<3, 1> anchorInBody;
    matvecmul(frames[f1].orientation, d.anchor, anchorInBody);
    for (size_t k = 0; k < 3; ++k) anchorInBody[k] += frames[f1].position[k];
    Mat<3, 1> pointW;
    getPosition(b1, anchorInBody, pointW);

    // Against a fixed base only the moving side has a contact record; that
    // side must be the first, so that it owns the problem.
    if (b1 == 0 && jointType[0] == Joint::FIXED) std::swap(b1, b2);
    Mat<3, 1> p1, p2;
    getPositionInBodyCoordinate(b1, pointW, p1);
    getPositionInBodyCoordinate(b2, pointW, p2);
    pins.emplace_back(b1, p1, b2, p2);
  }
  pinDefinitions.clear();
}

}  // namespace vorsim
