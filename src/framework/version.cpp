// Version queries and the registration of the version record at load time.
#include "lxopt/version.h"

namespace LxOpt {
namespace {

constexpr unsigned int kBuildNumber = 20260727u;
constexpr const char* kRelease = "2.9.2.0";
constexpr const char* kDebugRelease = "2.9.2.0 debug";
constexpr const char* kArch = "redhat-RHEL8-x64";
constexpr const char* kPlatform = "redhat-RHEL8-g++8.5-x64";

struct RegisterAtLoad {
  RegisterAtLoad() { LxRegisterVersion(&LxOptVersion); }
};
const RegisterAtLoad registerAtLoad;

}  // namespace

unsigned int LxOptGetVersion() {
  return kBuildNumber;
}
const char* LxOptGetRelease() {
  return kRelease;
}
const char* LxOptGetNonDebugRelease() {
  return kRelease;
}
const char* LxOptGetDebugRelease() {
  return kDebugRelease;
}
const char* LxOptGetArch() {
  return kArch;
}
const char* LxOptGetPlatform() {
  return kPlatform;
}

LxVersionRecord LxOptVersion() {
  return {"lxsuite", "LxOpt", kRelease};
}

}  // namespace LxOpt
