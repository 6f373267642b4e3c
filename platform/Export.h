// Marks what libVel.so offers to others; everything else stays hidden.
#pragma once

#define VEL_EXPORT [[gnu::visibility("default")]]
