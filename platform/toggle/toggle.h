/// @file
/// Feature toggles: named booleans that an administrator sets in a JSON file. Usable alone.
#pragma once

#if defined(__GNUC__)
#define TOGGLE_EXPORT __attribute__((visibility("default")))
#else
#define TOGGLE_EXPORT
#endif

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// The state of the toggle `name` in the toggle file `file` (a file name, such as "Pavo.json"),
/// which holds one JSON object of names and booleans: `{"fastPath": true}`.
///
/// The file is looked for in the directory that the environment variable PAVO_TOGGLE_DIR names;
/// when that is not set, in the working directory, then in /etc. The first file found decides.
/// `defaultState` is the answer when there is none, or when it does not mention the toggle. A file
/// that cannot be read, is not such an object, or gives the toggle a value that is no boolean, is
/// told on standard error, once per file in the life of the process, and counts as absent.
///
/// Reads the file at every call: whoever asks often keeps the answer. May be called from any
/// thread.
TOGGLE_EXPORT bool getToggleState(const char* name, const char* file, bool defaultState);

#ifdef __cplusplus
}
#endif
