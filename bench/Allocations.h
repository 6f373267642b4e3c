// Counts what the program allocates by operator new.
#pragma once

#include "bench/Bench.h"

namespace Bench {

U64 allocations();  // the number so far

}  // namespace Bench
