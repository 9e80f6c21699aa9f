#pragma once

// The engine is one shared object with hidden symbols; classes a host may use are marked here.
#if defined(__GNUC__)
#define ZRT_EXPORT __attribute__((visibility("default")))
#else
#define ZRT_EXPORT
#endif
