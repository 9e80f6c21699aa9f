#pragma once

// The engine is one shared object with hidden symbols; classes a host may use are marked here.
// ZRT_INTERNAL keeps one member of such a class out of the library's interface: the engine's own
// code and tests reach it, a host cannot link to it.
#if defined(__GNUC__)
#define ZRT_EXPORT __attribute__((visibility("default")))
#define ZRT_INTERNAL __attribute__((visibility("hidden")))
#else
#define ZRT_EXPORT
#define ZRT_INTERNAL
#endif
