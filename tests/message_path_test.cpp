// Message lines, the fatal callback, path normalisation and the path helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "vorsim/Path.hpp"
#include "vorsim/VorSimMsg.hpp"

using vorsim::Path;
using vorsim::VorSimMsg;

namespace {

// Installs a throwing fatal callback for the scope of a test.
struct ThrowingFatal {
  ThrowingFatal() {
    VorSimMsg::setFatalCallback([] { throw std::runtime_error("fatal"); });
  }
  ~ThrowingFatal() { VorSimMsg::resetFatalCallback(); }
};

// Splits captured output into message lines; each must start with the stamp
// "[YYYY:MM:DD:HH:MM:SS " and end with a newline. Returns what follows each
// stamp, or "<malformed>" for a line that breaks the format.
std::vector<std::string> afterStamps(const std::string& out) {
  static const std::string stamp = "[dddd:dd:dd:dd:dd:dd ";
  std::vector<std::string> rests;
  for (size_t start = 0; start < out.size();) {
    const size_t end = out.find('\n', start);
    const std::string line = out.substr(start, end == std::string::npos ? end : end + 1 - start);
    bool ok = end != std::string::npos && line.size() > stamp.size();
    for (size_t i = 0; ok && i < stamp.size(); ++i)
      ok = stamp[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == stamp[i];
    rests.push_back(ok ? line.substr(stamp.size()) : "<malformed>");
    start = end == std::string::npos ? out.size() : end + 1;
  }
  return rests;
}
using Lines = std::vector<std::string>;

}  // namespace

TEST(Message, LineFormatAndColours) {
  testing::internal::CaptureStdout();
  const int infoLine = __LINE__ + 1;
  MSG_INFO("count " << 42 << ", ratio " << 0.5);
  const int warnLine = __LINE__ + 1;
  MSG_WARN("careful");
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(afterStamps(out),
            (Lines{"message_path_test.cpp:" + std::to_string(infoLine) + "] count 42, ratio 0.5\x1b[0m\n",
                   "message_path_test.cpp:" + std::to_string(warnLine) + "] \x1b[33mcareful\x1b[0m\n"}));

  // Only "/" splits the file name; any other severity has no colour and no callback.
  bool called = false;
  VorSimMsg::setFatalCallback([&called] { called = true; });
  testing::internal::CaptureStdout();
  std::stringstream text;
  text << "plain";
  VorSimMsg().stream("C:\\src\\x.cpp", 5, text, 7);
  VorSimMsg().stream("/a/b/y.cpp", 6, text, 0);
  const std::string out2 = testing::internal::GetCapturedStdout();
  VorSimMsg::resetFatalCallback();
  EXPECT_FALSE(called);
  EXPECT_EQ(afterStamps(out2), (Lines{"C:\\src\\x.cpp:5] plain\x1b[0m\n", "y.cpp:6] plain\x1b[0m\n"}));
}

TEST(Message, FatalCallbackBehaviour) {
  // A callback that returns lets the code after the message run on.
  int calls = 0;
  VorSimMsg::setFatalCallback([&calls] { ++calls; });
  testing::internal::CaptureStdout();
  bool after = false;
  const int fatalLine = __LINE__ + 1;
  if (calls == 0) MSG_FATAL("broken " << 1);
  after = true;
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(after);
  EXPECT_EQ(afterStamps(out),
            Lines{"message_path_test.cpp:" + std::to_string(fatalLine) + "] \x1b[1;31mbroken 1\x1b[0m\n"});

  VorSimMsg::setFatalCallback(nullptr);  // an empty callback throws
  testing::internal::CaptureStdout();
  EXPECT_THROW(MSG_FATAL("x"), std::bad_function_call);
  testing::internal::GetCapturedStdout();

  VorSimMsg::resetFatalCallback();  // the default ends the process with status 1
  EXPECT_EXIT(MSG_FATAL("bye"), testing::ExitedWithCode(1), "");
}

TEST(PathTest, Normalisation) {
  EXPECT_EQ(Path::separator(), "/");
  EXPECT_EQ(Path("a/b/../c").getString(), "a/c");
  EXPECT_EQ(Path("a//b").getString(), "a/b");
  EXPECT_EQ(Path("a\\b\\..\\c").getString(), "a/c");  // the anti-separator is replaced first
  EXPECT_EQ(Path("/r/a/b/../../c///d").getString(), "/r/c/d");
  EXPECT_EQ(Path("abc/../x").getString(), "x");     // no separator before the step: the whole prefix goes
  EXPECT_EQ(Path("dir/a..b").getString(), "dirb");  // a plain substring search: "a.." reads as a parent step
  EXPECT_EQ(Path("a/../b", true).getString(), "a/../b");
  EXPECT_EQ(Path("a\\\\b", true).getString(), "a//b");  // already normalised: only separators swapped
  std::string s = "x\\y\\";
  Path::replaceAntiSeparatorWithSeparator(s);
  EXPECT_EQ(s, "x/y/");
}

TEST(PathTest, ParentBelowIndexThreeIsFatal) {
  ThrowingFatal guard;
  for (const std::string bad : {"../x", "a/../x", "\\..\\x"}) {
    testing::internal::CaptureStdout();
    EXPECT_THROW(Path{bad}, std::runtime_error) << bad;
    const Lines rests = afterStamps(testing::internal::GetCapturedStdout());
    ASSERT_EQ(rests.size(), 1u) << bad;
    const std::string& rest = rests[0];
    const std::string head = "Path.cpp:", tail = "] \x1b[1;31m\"" + bad + "\" is an invalid path\x1b[0m\n";
    ASSERT_GT(rest.size(), head.size() + tail.size()) << rest;
    EXPECT_EQ(rest.substr(0, head.size()), head);
    EXPECT_EQ(rest.substr(rest.size() - tail.size()), tail);
    const std::string lineNo = rest.substr(head.size(), rest.size() - head.size() - tail.size());
    EXPECT_TRUE(std::all_of(lineNo.begin(), lineNo.end(), [](char ch) { return std::isdigit(ch) != 0; })) << rest;
  }
}

TEST(PathTest, Parts) {
  const Path p("root/dir/file.tar.gz");
  EXPECT_EQ(p.getDirectory().getString(), "root/dir");
  EXPECT_EQ(p.getFileName(), "file.tar.gz");
  EXPECT_EQ(p.getFileExtension(), "gz");
  EXPECT_EQ(p.getTopDirectory().getString(), "dir");
  EXPECT_EQ(Path("dir/file").getTopDirectory().getString(), "dir");
  EXPECT_EQ(Path("noext").getFileExtension(), "noext");
  EXPECT_EQ(Path("a.d/file").getFileExtension(), "d/file");  // the dot search ignores separators
  EXPECT_EQ(Path("file").getDirectory().getString(), "");

  // Joining: two paths get a separator, a string is appended as it is, except a
  // two-character string ending in the separator, which appends the separator alone.
  EXPECT_EQ((Path("a") + Path("b")).getString(), "a/b");
  EXPECT_EQ((Path("a") + std::string("x")).getString(), "ax");
  EXPECT_EQ((Path("a") + std::string("x/")).getString(), "a/");
  EXPECT_EQ((Path("a") + std::string("xy/")).getString(), "axy/");
  EXPECT_EQ((Path("a") + std::string("/../b")).getString(), "a/../b");  // not normalised again
  EXPECT_THROW((void)(Path("a") + std::string()), std::out_of_range);

  const std::string name = testing::TempDir() + "vorsim_path_exists.txt";
  std::remove(name.c_str());
  EXPECT_FALSE(Path(name).fileExists());
  std::ofstream(name) << "x";
  EXPECT_TRUE(Path(name).fileExists());
  std::remove(name.c_str());

  EXPECT_EQ(vorsim::getContents("<a>text</a>"), "text");
  EXPECT_EQ(vorsim::getContents("<a k=\"v\"><b>1</b> 2</a>"), "<b>1</b> 2");
  EXPECT_EQ(vorsim::getContents("<a></a>"), "");
}
