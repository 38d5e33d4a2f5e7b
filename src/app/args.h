// The command line: "ekadcdf -a auditfile -b basecdffile [-g maxgen] [-x] [-d] [-e]", and
// "--once" (stop at the end of the audit file) and "--metrics file" anywhere among the arguments.
#pragma once

#include <memory>
#include <string>

#include "stream/audit_sources.h"
#include "stream/context.h"
#include "support/trace.h"

namespace adcdf {

extern const char kUsageText[];
// What --help prints after the usage text: the options beyond it.
extern const char kAddedOptions[];

struct ParsedArgs {
  Options options;
  std::unique_ptr<FileSource> audit;
};

// Parses the options in order (a repeated option takes effect again; unknown arguments are
// ignored), opens the audit file and, in debug mode, writes the argument summary. Ends the
// process with status 2 (ProcessExit) when a name is missing or the audit file cannot be opened.
ParsedArgs adcdf_parse_args(int argc, char** argv, Tracer& trace);

// Installs the handlers of SIGUSR1 (a new generation) and of SIGTERM, SIGINT and SIGHUP (stop).
void adcdf_init_vars(Context& ctx);

// "~/logs/audit" with "~" standing for $HOME (the empty string when it is unset).
std::string expand_home(const std::string& configured);

}  // namespace adcdf
