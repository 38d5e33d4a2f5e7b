#include "app/args.h"

#include <csignal>
#include <cstdlib>

#include "support/error.h"
#include "support/signals.h"
#include "support/tokenizer.h"

namespace adcdf {

const char kUsageText[] =
    "Usage:\n\nekadcdf -a auditfile -b basecdffile [-g maxgen] [-x] [-d] [-e]\nwhere\n"
    "-a auditfile   = the audit file name.\n"
    "-b basecdffile = the string for the output cdf file (with no extension.)\n"
    "-g maxgen      = value for number of previous versions of\n"
    "                 the cdf file.  Versions older than this\n"
    "                 number will be removed from the system.\n"
    "                 Default is 6.  Maximum is 100.\n"
    "-x             = do not force characters in addresses to upper case.\n"
    "-d             = print debug messages to stderr.\n"
    "-e             = do not write information to the errorlog.\n\n";

const char kAddedOptions[] =
    "Further options:\n"
    "--once         = stop at the end of the audit file instead of waiting for more.\n"
    "--metrics file = write figures for Prometheus (the node exporter's textfile format) to\n"
    "                 file at start, every few seconds and at a stop.\n"
    "--version      = print the version and exit (alone).\n"
    "--help         = print this text and exit (alone).\n";

namespace {

[[noreturn]] void fail(Tracer& trace, const char* message) {
  trace.write(message);
  throw ProcessExit{2};
}

}  // namespace

std::string expand_home(const std::string& configured) {
  if (configured.empty() || configured[0] != '~') return configured;
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + configured.substr(1);
}

ParsedArgs adcdf_parse_args(int argc, char** argv, Tracer& trace) {
  TraceScope scope(trace, "adcdf_parse_args");
  ParsedArgs parsed;
  Options& o = parsed.options;
  o.audit_file = expand_home("~/logs/audit");
  bool audit_given = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (arg == "-a") {
      ++i;
      if (value == nullptr || *value == '\0') fail(trace, "\nAuditFile name missing.\n");
      o.audit_file = value;
      parsed.audit = FileSource::open(o.audit_file);
      if (!parsed.audit) fail(trace, "\nFailed to open the audit file.\n");
      audit_given = true;
    } else if (arg == "-b") {
      ++i;
      if (value == nullptr || *value == '\0') fail(trace, "\nBaseFile name missing.\n");
      o.output_base = value;
    } else if (arg == "-g") {
      ++i;
      if (value != nullptr) o.max_generations = std::min(static_cast<int>(parse_long(value)), 100);
    } else if (arg == "-x") {
      o.upshift = false;
    } else if (arg == "-d") {
      o.debug = true;
      trace.set_debug(true);
    } else if (arg == "-e") {
      o.noerr = true;
    } else if (arg == "--once") {
      o.once = true;
    } else if (arg == "--metrics") {
      ++i;
      if (value != nullptr) o.metrics = value;
    }
  }
  if (!audit_given) {
    parsed.audit = FileSource::open(o.audit_file);
    if (!parsed.audit) fail(trace, "\nFailed to open the audit file.\n");
  }
  trace.printf(
      "Current args:\n Auditfilename     = %s\n Basefilename      = %s\n Maxgenerations    = "
      "%d\n Upshift addresses = %s\n Debug mode        = %s\n\n",
      o.audit_file.c_str(), o.output_base.c_str(), o.max_generations, o.upshift ? "Yes" : "No",
      o.debug ? "On" : "Off");
  scope.done();
  return parsed;
}

void adcdf_init_vars(Context& ctx) {
  TraceScope scope(ctx.trace, "adcdf_init_vars");
  install_handler(SIGUSR1, on_new_generation_signal);
  // An interrupt from the terminal and a hang-up stop the daemon the way SIGTERM does.
  for (int stop : {SIGTERM, SIGINT, SIGHUP}) install_handler(stop, on_stop_signal);
  scope.done();
}

}  // namespace adcdf
