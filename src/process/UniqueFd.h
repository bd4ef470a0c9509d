// The owned descriptor lives in the foundation; this name stays for the
// process code that includes it from here.
#pragma once

#include "util/UniqueFd.h"
