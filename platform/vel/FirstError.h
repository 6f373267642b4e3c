// Runs steps that may throw: every step runs, and the first error is thrown at the end.
#pragma once

#include <exception>
#include <utility>

namespace Vel {

class FirstError {
  public:
    template <class Step>
    void in(Step&& step) {
        try {
            step();
        } catch (...) {
            if (!error_) error_ = std::current_exception();
        }
    }
    void raise() {
        if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
    }

  private:
    std::exception_ptr error_;
};

}  // namespace Vel
