#pragma once

// Marks what programs outside of the library may use; everything else stays hidden.
#if defined(__GNUC__)
#define SO_EXPORT __attribute__((visibility("default")))
#else
#define SO_EXPORT
#endif
