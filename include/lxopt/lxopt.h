// Every public header of the library.
#ifndef LXOPT_LXOPT_H
#define LXOPT_LXOPT_H

#include "lxopt/anneal.h"
#include "lxopt/asktell.h"
#include "lxopt/conjgrad.h"
#include "lxopt/coordfunc.h"
#include "lxopt/function.h"
#include "lxopt/geomopt.h"
#include "lxopt/host.h"
#include "lxopt/linmin.h"
#include "lxopt/minfinder.h"
#include "lxopt/minfinder_generators.h"
#include "lxopt/minfinder_samples.h"
#include "lxopt/newton.h"
#include "lxopt/numeric.h"
#include "lxopt/optimizer.h"
#include "lxopt/quasinewton.h"
#include "lxopt/registry.h"
#include "lxopt/steepest.h"
#include "lxopt/tools.h"
#include "lxopt/version.h"

#endif  // LXOPT_LXOPT_H
