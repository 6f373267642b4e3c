// Invariants that hold in every build. VEL_ASSERT(expression, "text") is for states that cannot be:
// when the expression is false the assertion handler is called with exactly that text, and the
// process ends. Wrong input is no such state; it is answered with an error (Error.h).
//
// The handler is process-wide and meant to be set at start, or by a test for its own length. A
// test's handler may throw to get out; a handler that returns does not save the process.
#pragma once

#include "platform/Export.h"

namespace Vel {

using AssertHandler = void (*)(const char* text, const char* file, int line);

// Installs a handler and returns the one before it; null restores the default, which prints
// "file:line: assertion failed: text" to standard error.
VEL_EXPORT AssertHandler assertHandlerIs(AssertHandler handler);

// Calls the handler, then aborts. For callers whose text is made when the assertion fails.
[[noreturn, gnu::cold, gnu::noinline]] VEL_EXPORT void assertionFailed(const char* text,
                                                                       const char* file, int line);

}  // namespace Vel

#define VEL_ASSERT(expression, text)                      \
    (static_cast<bool>(expression) ? static_cast<void>(0) \
                                   : ::Vel::assertionFailed(text, __FILE__, __LINE__))
