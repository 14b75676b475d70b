// Every public header of the library.
#ifndef LXOPT_LXOPT_H
#define LXOPT_LXOPT_H

#include "lxopt/host.h"
#include "lxopt/function.h"
#include "lxopt/optimizer.h"
#include "lxopt/linmin.h"
#include "lxopt/steepest.h"
#include "lxopt/version.h"

#endif  // LXOPT_LXOPT_H
