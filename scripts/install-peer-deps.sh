#!/usr/bin/env bash
# Installs the Debian packages of the peer comparison (`make bench-peers`):
# GSL and dlib on top of the build's own, only those that are missing.
set -euo pipefail
exec bash "$(dirname "$0")/install-deps.sh" libgsl-dev libdlib-dev
