// Marks what libNav.so offers to others; everything else stays hidden.
#pragma once

#define NAV_EXPORT [[gnu::visibility("default")]]
