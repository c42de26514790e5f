#include "vorsim/VorSimMsg.hpp"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <iostream>

namespace vorsim {

namespace {
void defaultFatal() { std::exit(1); }
}  // namespace

std::function<void()> VorSimMsg::fatalCallback_ = defaultFatal;

void VorSimMsg::resetFatalCallback() { fatalCallback_ = defaultFatal; }

void VorSimMsg::stream(const char* file, int line, std::stringstream& text, int severity) {
  const char* shortName = std::strrchr(file, '/');
  shortName = shortName ? shortName + 1 : file;

  const char* colour = "";
  if (severity == 1) colour = "\x1b[33m";
  if (severity == 2) colour = "\x1b[1;31m";

  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);

  log_ << "[" << std::setfill('0') << std::put_time(&local, "%Y:%m:%d:%X") << " " << std::setfill(' ') << shortName
       << ":" << line << "] " << colour << text.str() << "\x1b[0m" << std::endl;
  std::cout << log_.str() << std::flush;

  if (severity == 2) fatalCallback_();
}

}  // namespace vorsim
