// Marks what libNav.so exports; everything else is hidden.
#pragma once

#define NAV_EXPORT [[gnu::visibility("default")]]
