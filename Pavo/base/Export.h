/// @file
/// What is visible outside libPavo: everything else is hidden.
#pragma once

#define PAVO_EXPORT __attribute__((visibility("default")))
