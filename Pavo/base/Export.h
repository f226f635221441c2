/// @file
/// Marks the symbols that are visible outside libPavo; all others are hidden.
#pragma once

/// Before a class or function: its symbol is visible outside the library.
#define PAVO_EXPORT __attribute__((visibility("default")))
