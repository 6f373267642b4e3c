// VEL_FOR_EACH_COMMA(macro, fixed, a, b, …) expands to macro(fixed, a), macro(fixed, b), …
// (up to 60 arguments; the rescanning technique of C++20's __VA_OPT__).
#pragma once

#define VEL_PARENS_ ()
#define VEL_EXPAND_(...) VEL_EXPAND2_(VEL_EXPAND2_(VEL_EXPAND2_(VEL_EXPAND2_(__VA_ARGS__))))
#define VEL_EXPAND2_(...) VEL_EXPAND1_(VEL_EXPAND1_(VEL_EXPAND1_(VEL_EXPAND1_(__VA_ARGS__))))
#define VEL_EXPAND1_(...) __VA_ARGS__

#define VEL_FOR_EACH_COMMA(macro, fixed, ...) \
    __VA_OPT__(VEL_EXPAND_(VEL_EACH_(macro, fixed, __VA_ARGS__)))
#define VEL_EACH_(macro, fixed, first, ...) \
    macro(fixed, first) __VA_OPT__(, VEL_EACH_AGAIN_ VEL_PARENS_(macro, fixed, __VA_ARGS__))
#define VEL_EACH_AGAIN_() VEL_EACH_
