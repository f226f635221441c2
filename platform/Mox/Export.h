/// @file
/// What is visible outside libMox: everything else is hidden.
#pragma once

#define MOX_EXPORT __attribute__((visibility("default")))
