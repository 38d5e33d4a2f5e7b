// The daemon's entry in the process list: a file holding its process id, named after the
// program, in $RUNTIME_DIRECTORY (set by systemd's RuntimeDirectory=) or else /tmp. Recording is
// best effort: a failure is not fatal, and a name that would fall under the output files'
// prefix is never used. The entry is created exclusively and never through a symbolic link; an
// entry left by a process that no longer runs is replaced, anything else there is left alone.
#pragma once

#include <string>

namespace adcdf {

// The path of the entry for a program named `name` (the base name of argv[0]).
std::string pid_file_path(const std::string& name);

// Both return silently on failure. `base` is the output files' base name: an entry whose path
// would start with "<base>." is not written.
void record_pid(const std::string& name, const std::string& base);
// Removes the entry, but only while it still names this process.
void remove_pid(const std::string& name);

// The part of `path` after its last '/'.
std::string file_name_of(const std::string& path);

}  // namespace adcdf
