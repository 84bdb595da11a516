// Setup files: the settings of an installation, one file per package, stored
// in an Environment (the process environment in the program).
//
// A package is the file $CONFIG/setup/<package>.Setup of NAME=VALUE lines.
// Reading it stores every setting in the environment, so every reader of
// the worker's settings sees it; later packages overwrite earlier
// ones. When CONFIG holds a bare name (no "/" or "\", not an existing path),
// the configuration directory is looked up in the ".conf" files of the
// directory named by ECM_CONF_DIRS.
//
// Line rules (setup files and ".conf" files alike):
//   - a "#" as the first character makes a comment; a line without "=" is ignored;
//   - NAME is the text before the first "=" with trailing white space removed;
//     leading white space stays part of the name;
//   - VALUE is the rest with leading and trailing white space removed, and
//     then one pair of enclosing double quotes removed;
//   - an empty VALUE sets nothing (the variable is neither set nor cleared).
//
// Meant for start-up: storing into the process environment is not
// thread-safe.
#ifndef BASE_SETUP_H_
#define BASE_SETUP_H_

#include "base/Environment.h"
#include "base/String.h"

// Size of the buffers of expandAndPut and of one setup-file line.
constexpr int kSetupBufferSize = 2048;

// Reads the package's setup file into the environment. Returns 1 when the
// file was read to its end, 0 when it could not be opened (silently: a
// missing package is not an error) or a setting could not be stored (the
// settings before it stay). When CONFIG is unset or empty it writes
// "Environment variable CONFIG not set!" to standard error and returns -1
// (the program ends with exit code 1).
int readSetup(Environment& env, const char* package);

// The configuration directory readSetup reads packages from: CONFIG, or the
// directory looked up for a bare name; empty when CONFIG is unset or empty.
String configDirectory(const Environment& env);

// Why the package's setup file in the configuration directory dir cannot
// be read, as a text for the operator ("configuration directory '...'
// (CONFIG) does not exist", "'.../setup/COMMON.Setup' cannot be read: ...");
// empty when it can.
String setupFileProblem(const String& dir, const char* package);

// Takes one text NAME=VALUE, expands variable references from env and
// stores it there. First pass: "\$" gives "$"; $NAME, $(NAME) and ${NAME} (NAME of
// letters, digits, "_") are replaced by the variable's value; an unset
// variable leaves the reference as written. Second pass: %NAME% references
// are replaced by the variable's value; unknown ones stay as written. A text
// that would expand beyond the buffer is reported on standard error and
// stored unexpanded. Returns 0 on success, -1 when the environment refuses
// the setting (out of memory, reported on standard error, or an empty name).
int expandAndPut(Environment& env, const char* text);

// Looks up configuration directories for the configuration name: reads every
// ".conf" file of the directory $ECM_CONF_DIRS in sorted name order and
// collects the values of their CONFIG keys, each directory once. Returns 0
// when the list could be read, and then stores the first directory in
// *result (left unchanged when there is none); -1 when ECM_CONF_DIRS is unset
// or its directory cannot be read.
int readConfigDirectory(const Environment& env, const char* name, String* result);

#endif  // BASE_SETUP_H_
