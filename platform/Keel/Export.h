/// @file
/// What is visible outside libKeel: everything else is hidden.
#pragma once

#define KEEL_EXPORT __attribute__((visibility("default")))
