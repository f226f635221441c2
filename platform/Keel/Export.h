/// @file
/// What is visible outside libKeel: everything else is hidden.
#pragma once

/// Before a class or function: its symbol is visible outside the library.
#define KEEL_EXPORT __attribute__((visibility("default")))
