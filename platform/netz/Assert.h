// Invariants, checked in every build. VEL_ASSERT(expression, "text") is for impossible states: if
// the expression is false, the assertion handler is called with exactly that text and the process
// stops. Wrong input raises an error instead (Error.h).
//
// The handler is process-wide and meant to be set at start, or by a test while it runs. A handler
// may throw to leave the failed operation; if it returns, the process aborts.
#pragma once

#include "platform/Export.h"

namespace Vel {

using AssertHandler = void (*)(const char* text, const char* file, int line);

// Installs a handler and returns the previous one; null restores the default, which prints
// "file:line: assertion failed: text" to standard error.
VEL_EXPORT AssertHandler assertHandlerIs(AssertHandler handler);

// Calls the handler, then aborts. For assertions whose text is composed when they fail.
[[noreturn, gnu::cold, gnu::noinline]] VEL_EXPORT void assertionFailed(const char* text,
                                                                       const char* file, int line);

}  // namespace Vel

#define VEL_ASSERT(expression, text)                      \
    (static_cast<bool>(expression) ? static_cast<void>(0) \
                                   : ::Vel::assertionFailed(text, __FILE__, __LINE__))
