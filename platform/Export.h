// Marks what libVel.so exports; everything else is hidden. All headers that matter include this
// one, so it also checks how the including file is compiled.
#pragma once

#define VEL_EXPORT [[gnu::visibility("default")]]

static_assert(sizeof(void*) == 8, "the system is for 64-bit platforms only");

// Inline code differs between builds with and without NDEBUG, so the libraries and the programs
// linked to them must agree on it. Every object file refers to a symbol named after its kind of
// build; libVel.so defines only that of its own kind, so the linker refuses a mixture.
#ifdef NDEBUG
#define VEL_BUILD_KIND builtWithNDEBUG
#else
#define VEL_BUILD_KIND builtWithoutNDEBUG
#endif
namespace Vel {
VEL_EXPORT extern const char VEL_BUILD_KIND;
namespace {
[[gnu::used]] const char* const buildKind = &VEL_BUILD_KIND;
}
}  // namespace Vel
