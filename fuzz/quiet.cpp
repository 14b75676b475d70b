// libFuzzer's start-up hook, shared by every target: silences the library's
// messages and progress lines (the fuzzers call the warning paths millions
// of times) and the minimum finder's notices.
#include <iostream>
#include <ostream>
#include <streambuf>
#include <string>

#include "lxopt/host.h"

namespace {

struct NullBuffer : std::streambuf {
  int overflow(int c) override { return c; }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static NullBuffer buffer;
  static std::ostream nowhere(&buffer);
  LxOpt::LxSetMessageSink([](LxOpt::LxMessageLevel, const std::string&) {});
  LxOpt::LxSetOutputStream(&nowhere);
  std::cerr.rdbuf(&buffer);
  return 0;
}
