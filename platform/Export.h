// Marks what libVel.so offers to others; everything else stays hidden.
#pragma once

#define VEL_EXPORT __attribute__((visibility("default")))
