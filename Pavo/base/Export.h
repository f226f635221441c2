/// @file
/// Marks the symbols that are visible outside libPavo; all others are hidden.
#pragma once

#define PAVO_EXPORT __attribute__((visibility("default")))
