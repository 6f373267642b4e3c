// Marks what libVel.so offers to others; everything else stays hidden. The headers that matter all
// include this one, so it also checks how the including file is compiled.
#pragma once

#define VEL_EXPORT [[gnu::visibility("default")]]

static_assert(sizeof(void*) == 8, "the system is for 64-bit platforms only");

// Inline code differs between builds with and without NDEBUG, so the libraries and what links to
// them must agree on it. Every object file refers to the symbol of its kind of build; libVel.so
// defines its own kind alone, and the linker refuses the other.
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
