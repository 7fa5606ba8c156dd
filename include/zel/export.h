// Marks the symbols a host may use; everything else in the library stays hidden.
#pragma once

#define ZEL_EXPORT __attribute__((visibility("default")))
