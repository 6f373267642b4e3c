// The task scheduler as a counted object, so that reactors can hold it like their other inputs. The
// host creates it, drives it, and keeps it until the last reactor is destroyed.
#pragma once

#include "platform/loom/TaskScheduler.h"
#include "platform/vel/Object.h"

namespace Vel {

class VEL_EXPORT Scheduler final : public Object, public Loom::TaskScheduler {
  public:
    using TaskScheduler::TaskScheduler;

  private:
    ~Scheduler() override = default;  // by the last Ptr
};

}  // namespace Vel
