#include "platform/netz/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace Vel {
namespace {

void printFailure(const char* text, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, text);
}

AssertHandler currentHandler = printFailure;

}  // namespace

AssertHandler assertHandlerIs(AssertHandler handler) {
    return std::exchange(currentHandler, handler ? handler : printFailure);
}

void assertionFailed(const char* text, const char* file, int line) {
    currentHandler(text, file, line);
    std::abort();
}

}  // namespace Vel
