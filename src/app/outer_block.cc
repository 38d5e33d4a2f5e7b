#include "app/outer_block.h"

#include <cstdio>
#include <new>

#include "app/args.h"
#include "app/process_loop.h"
#include "support/error.h"
#include "support/pidfile.h"
#include "support/signals.h"

namespace adcdf {
namespace {

constexpr const char* kOuterBlock = "main: ADCDF Daemon Outer Block";

void adcdf_Init(int /*service*/, int /*component*/) {}

int outer_block(int argc, char** argv, Tracer& trace) {
  if (argc < 3) {
    trace.write(kUsageText);
    throw ProcessExit{1};
  }
  ParsedArgs args = adcdf_parse_args(argc, argv, trace);
  PollWaiter waiter(trace);
  AuditInput input(*args.audit, waiter, &trace);
  Context ctx(args.options, trace, input);
  adcdf_init_vars(ctx);
  // One daemon per base name: the lock comes before the process-list entry and before any output
  // file is opened, so a daemon refused here has touched nothing.
  ctx.positions.lock(ctx.options.gszBaseFilename + ".POS");
  const std::string program = util_BaseName(argv[0]);
  proc_RecordMyPid(program, ctx.options.gszBaseFilename);
  adcdf_process_file(ctx);
  proc_RemoveMyPid(program);
  return 0;
}

}  // namespace

int run_daemon(int argc, char** argv) {
  bContinue = 1;
  // Full buffering: the trace is flushed before every sleep and at exit.
  static char stderr_buffer[1 << 16];
  std::setvbuf(stderr, stderr_buffer, _IOFBF, sizeof stderr_buffer);
  Tracer trace(stderr);
  adcdf_Init(0, 0);
  trace.enter(kOuterBlock);
  bool fatal = false;
  try {
    outer_block(argc, argv, trace);
  } catch (const ProcessExit& exit) {
    trace.flush();
    std::fflush(stdout);
    return exit.status;
  } catch (const AdcdfError& error) {
    std::printf("adcdf error: %d %d %s\n", error.group(), error.reason(),
                msg_GetAnyMsg(error).c_str());
    fatal = true;
  } catch (const std::bad_alloc&) {
    std::printf("adcdf error: %d %d %s\n", kGroupMemory, kReasonAlloc,
                msg_GetAnyMsg(AdcdfError(kGroupMemory, kReasonAlloc, "no memory left")).c_str());
    fatal = true;
  }
  trace.leave(kOuterBlock);
  trace.flush();
  std::fflush(stdout);
  return fatal ? 1 : 0;
}

}  // namespace adcdf
