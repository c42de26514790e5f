// The library's one voice: a formatted line on standard output with time, the
// caller's file and line, a colour per severity, and for fatal messages a call
// to a replaceable callback whose default ends the process.
#ifndef VORSIM_VORSIMMSG_HPP
#define VORSIM_VORSIMMSG_HPP

#include <functional>
#include <sstream>

namespace vorsim {

class VorSimMsg {
 public:
  // Severity 0 is information, 1 a warning (yellow), 2 fatal (red). Any other
  // value prints with no colour and calls nothing.
  void stream(const char* file, int line, std::stringstream& text, int severity);

  // Replaces the fatal callback. Set it before other threads use the library.
  // A callback that returns lets the code after the message run on; a throwing
  // one unwinds out of the failing call.
  static void setFatalCallback(std::function<void()> callback) { fatalCallback_ = std::move(callback); }
  // Restores the default callback, which calls exit(1).
  static void resetFatalCallback();

 private:
  std::stringstream log_;
  static std::function<void()> fatalCallback_;
};

}  // namespace vorsim

#define VORSIM_MSG_IMPL_(severity, text)                                        \
  do {                                                                          \
    std::stringstream vorsim_msg_text_;                                         \
    vorsim_msg_text_ << text; /* NOLINT(bugprone-macro-parentheses) */          \
    vorsim::VorSimMsg().stream(__FILE__, __LINE__, vorsim_msg_text_, severity); \
  } while (0)

#define MSG_INFO(text) VORSIM_MSG_IMPL_(0, text)
#define MSG_WARN(text) VORSIM_MSG_IMPL_(1, text)
#define MSG_FATAL(text) VORSIM_MSG_IMPL_(2, text)

#endif  // VORSIM_VORSIMMSG_HPP
