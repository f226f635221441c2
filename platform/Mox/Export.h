/// @file
/// Marks the symbols of libMox that are visible outside it; all others are hidden.
#pragma once

/// Before a class or function: its symbol is visible outside the library.
#define MOX_EXPORT __attribute__((visibility("default")))
