// The task scheduler as an object that reactors can hold: counted like everything they are given.
// The host makes it, drives it, and keeps it until the last reactor is gone.
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
