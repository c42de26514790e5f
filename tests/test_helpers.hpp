// Small shared fixtures of the test suite.
#ifndef VORSIM_TESTS_TEST_HELPERS_HPP
#define VORSIM_TESTS_TEST_HELPERS_HPP

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "vorsim/VorSimMsg.hpp"
#include "vorsim/World.hpp"

namespace vorsim_test {

// A world that accepts any Object, for tests that drive custom objects.
class TestWorld : public vorsim::World {
 public:
  template <typename T>
  T* add(T* object) {
    return registerObject(object);
  }
  // Enters a geom of the object added last, as the add-functions do.
  void addGeom(dxGeom* geom, size_t localIdx, const std::string& material = "default") {
    addCollisionObject(geom, localIdx, material, 1, kAllBits);
  }
};

// What the library prints on stdout during the capture's lifetime.
class StdoutCapture {
 public:
  StdoutCapture() { testing::internal::CaptureStdout(); }
  ~StdoutCapture() {
    if (!taken_) testing::internal::GetCapturedStdout();
  }
  std::string text() {
    if (!taken_) {
      text_ = testing::internal::GetCapturedStdout();
      taken_ = true;
    }
    return text_;
  }

 private:
  bool taken_ = false;
  std::string text_;
};

struct FatalError : std::runtime_error {
  FatalError() : std::runtime_error("fatal") {}
};

// While alive, a fatal message throws FatalError instead of ending the process.
class ThrowOnFatal {
 public:
  ThrowOnFatal() {
    vorsim::VorSimMsg::setFatalCallback([] { throw FatalError(); });
  }
  ~ThrowOnFatal() { vorsim::VorSimMsg::resetFatalCallback(); }
};

}  // namespace vorsim_test

using vorsim_test::StdoutCapture;
using vorsim_test::TestWorld;
using vorsim_test::ThrowOnFatal;

#endif  // VORSIM_TESTS_TEST_HELPERS_HPP
