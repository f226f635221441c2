/// @file
/// Feature toggles: named booleans that an administrator sets in a JSON file. Usable alone.
#pragma once

#if defined(__GNUC__)
/// Before a function: its symbol is visible outside the library.
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
/// when that is not set, in the working directory, then in /etc. A program that runs with more
/// privileges than its user (setuid, setgid, file capabilities) looks in /etc only. The first file
/// found decides. The answer is `defaultState` when there is none, when it does not mention the
/// toggle, or when `name` or `file` is null. A file that cannot be read, is not such an object, or
/// gives the toggle a value that is no boolean, is reported on standard error, once per file in the
/// life of the process, and counts as absent.
///
/// Every call reads the file: a caller that needs the state often keeps it. May be called from any
/// thread.
TOGGLE_EXPORT bool getToggleState(const char* name, const char* file, bool defaultState);

#ifdef __cplusplus
}
#endif
