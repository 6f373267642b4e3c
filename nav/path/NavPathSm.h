// Paths: their construction from configuration and interface addresses, and their resolution.
#pragma once

#include "nav/path/NavPathGroupDirSm.h"
#include "nav/path/NavPathResolutionDirSm.h"
