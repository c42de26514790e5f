// Message lines, the fatal callback, path normalisation and the path helpers.
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <sstream>
#include <string>
#include <utility>

#include "test_helpers.hpp"
#include "vorsim/Path.hpp"

using vorsim::Path;
using vorsim::VorSimMsg;

namespace {

// The output with every "[YYYY:MM:DD:HH:MM:SS " stamp removed; a stamp of any
// other shape stays and fails the comparison.
std::string unstamped(const std::string& out) {
  const std::string shape = "[dddd:dd:dd:dd:dd:dd ";
  std::string result;
  for (size_t i = 0; i < out.size();) {
    bool stamp = i + shape.size() <= out.size();
    for (size_t k = 0; stamp && k < shape.size(); ++k)
      stamp = shape[k] == 'd' ? std::isdigit(static_cast<unsigned char>(out[i + k])) != 0 : out[i + k] == shape[k];
    if (stamp) {
      i += shape.size();
    } else {
      result += out[i++];
    }
  }
  return result;
}

// "Path.cpp:<line>]" with the line number replaced by N.
std::string withoutLine(std::string text) {
  const size_t begin = text.find(':') + 1, end = text.find(']');
  return text.replace(begin, end - begin, "N");
}

}  // namespace

TEST(Message, LineFormatAndFatalCallback) {
  StdoutCapture out;
  int calls = 0;
  VorSimMsg::setFatalCallback([&calls] { ++calls; });
  const int line = __LINE__ + 1;
  MSG_INFO("count " << 42 << ", ratio " << 0.5);
  MSG_WARN("careful");
  MSG_FATAL("broken " << 1);  // a returning callback lets the code run on
  std::stringstream text("plain");
  VorSimMsg().stream("C:\\src\\x.cpp", 5, text, 7);  // only "/" splits the name; no colour, no callback
  EXPECT_EQ(calls, 1);
  const std::string f = "message_path_test.cpp:";
  EXPECT_EQ(unstamped(out.text()), f + std::to_string(line) + "] count 42, ratio 0.5\x1b[0m\n" + f +
                                       std::to_string(line + 1) + "] \x1b[33mcareful\x1b[0m\n" + f +
                                       std::to_string(line + 2) + "] \x1b[1;31mbroken 1\x1b[0m\n" +
                                       "C:\\src\\x.cpp:5] plain\x1b[0m\n");

  VorSimMsg::setFatalCallback(nullptr);  // an empty callback throws
  StdoutCapture quiet;
  EXPECT_THROW(MSG_FATAL("x"), std::bad_function_call);
  quiet.text();
  VorSimMsg::resetFatalCallback();  // the default ends the process with status 1
  EXPECT_EXIT(MSG_FATAL("bye"), testing::ExitedWithCode(1), "");
}

TEST(PathTest, NormalisationAndInvalidParentStep) {
  const std::pair<const char*, const char*> cases[] = {
      {"a/b/../c", "a/c"}, {"a//b", "a/b"}, {"a\\b\\..\\c", "a/c"}, {"/r/a/b/../../c///d", "/r/c/d"},
      {"abc/../x", "x"},      // no separator before the step: the whole prefix goes
      {"dir/a..b", "dirb"}};  // a plain substring search: "a.." reads as a parent step
  for (const auto& [in, want] : cases) EXPECT_EQ(Path(in).getString(), want) << in;
  EXPECT_EQ(Path("a\\\\..\\b", true).getString(), "a//../b");  // already normalised: only separators swapped

  ThrowOnFatal guard;
  for (const std::string bad : {"../x", "a/../x", "\\..\\x"}) {
    StdoutCapture out;
    EXPECT_THROW(Path{bad}, vorsim_test::FatalError) << bad;
    EXPECT_EQ(withoutLine(unstamped(out.text())), "Path.cpp:N] \x1b[1;31m\"" + bad + "\" is an invalid path\x1b[0m\n");
  }
}

TEST(PathTest, PartsJoiningAndHelpers) {
  const Path p("root/dir/file.tar.gz");
  EXPECT_EQ(p.getDirectory().getString(), "root/dir");
  EXPECT_EQ(p.getFileName(), "file.tar.gz");
  EXPECT_EQ(p.getFileExtension(), "gz");
  EXPECT_EQ(p.getTopDirectory().getString(), "dir");
  EXPECT_EQ(Path("noext").getFileExtension(), "noext");
  EXPECT_EQ(Path("a.d/file").getFileExtension(), "d/file");  // the dot search ignores separators
  EXPECT_EQ(Path("file").getDirectory().getString(), "");

  // A string is appended as it is, except a two-character one ending in "/": only the "/".
  EXPECT_EQ((Path("a") + Path("b")).getString(), "a/b");
  EXPECT_EQ((Path("a") + std::string("x")).getString(), "ax");
  EXPECT_EQ((Path("a") + std::string("x/")).getString(), "a/");
  EXPECT_EQ((Path("a") + std::string("/../b")).getString(), "a/../b");  // not normalised again
  EXPECT_THROW((void)(Path("a") + std::string()), std::out_of_range);
  EXPECT_EQ(vorsim::getContents("<a k=\"v\"><b>1</b> 2</a>"), "<b>1</b> 2");
  EXPECT_EQ(vorsim::getContents("<a></a>"), "");
}
