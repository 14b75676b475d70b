// Version of the library. Every function returns a constant (never null)
// fixed at build time. The record is registered with the host's version
// registry when the library is loaded.
#ifndef LXOPT_VERSION_H
#define LXOPT_VERSION_H

#include "lxopt/host.h"
#include "lxopt/lxopt_export.h"

namespace LxOpt {

LXOPT_API unsigned int LxOptGetVersion();         // 20260727
LXOPT_API const char* LxOptGetRelease();          // "2.9.2.0"
LXOPT_API const char* LxOptGetNonDebugRelease();  // "2.9.2.0"
LXOPT_API const char* LxOptGetDebugRelease();     // "2.9.2.0 debug"
// Target architecture and build platform strings of this build.
LXOPT_API const char* LxOptGetArch();
LXOPT_API const char* LxOptGetPlatform();
// {"lxsuite", "LxOpt", LxOptGetRelease()}
LXOPT_API LxVersionRecord LxOptVersion();

}  // namespace LxOpt

#endif  // LXOPT_VERSION_H
