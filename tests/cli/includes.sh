#!/usr/bin/env bash
# The command line reaches the component as any caller does: public headers, the class object
# and type library of the frame, error information, detection (for `info`) and platform
# helpers; never the containers nor the frame's internals.
#   includes.sh QXGROUP SOURCE_DIR
set -u
src=$2
bad=$(grep -nE '#include "(containers|archive|package)/|#include "frame/' "$src"/tools/qxgroup/*.cpp "$src"/tools/qxgroup/*.h |
  grep -vE '#include "frame/(Module|TypeLibrary)\.h"')
if [ -n "$bad" ]; then
  echo "qxgroup includes what it must reach through the component's interfaces:"
  echo "$bad"
  exit 1
fi
echo "includes: ok"
