/// @file
/// The mark of names that are visible outside libKeel: all others are hidden.
#pragma once

/// Before a class or function: its symbol is visible outside the library.
#define KEEL_EXPORT __attribute__((visibility("default")))
