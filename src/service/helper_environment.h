// HelperEnvironment: the one value through which operations reach the system — fixed paths, the
// clock and the log. Only main builds the real one; tests build theirs on temporary trees.
#pragma once

#include "platform/clock.h"
#include "platform/host_paths.h"
#include "service/helper_log.h"

struct HelperEnvironment {
  HostPaths paths;
  Clock clock;
  HelperLog& log;
};
