/// @file
/// Marks the symbols of libMox that are visible outside it; all others are hidden.
#pragma once

#define MOX_EXPORT __attribute__((visibility("default")))
