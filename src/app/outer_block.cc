#include "app/outer_block.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <new>
#include <string_view>

#include "app/args.h"
#include "app/process_loop.h"
#include "support/error.h"
#include "support/pidfile.h"
#include "support/signals.h"

namespace adcdf {
namespace {

constexpr const char* kOuterBlock = "main: ADCDF Daemon Outer Block";

void outer_block(int argc, char** argv, Tracer& trace) {
  if (argc < 3) {
    trace.write(kUsageText);
    throw ProcessExit{1};
  }
  ParsedArgs args = adcdf_parse_args(argc, argv, trace);
  PollWaiter waiter(trace, args.options.once);
  AuditInput input(*args.audit, waiter, &trace, args.options.audit_file);
  Context ctx(args.options, trace, input);
  adcdf_init_vars(ctx);
  // Every name is checked before any file is created. One daemon per base name: the lock comes
  // before the process-list entry and before any output file is opened, so a daemon refused
  // here has touched nothing.
  ctx.generations.names().check(ctx.options.max_generations, ctx.options.noerr);
  ctx.positions.lock(ctx.generations.names().position());
  const std::string program = file_name_of(argv[0]);
  record_pid(program, ctx.options.output_base);
  adcdf_process_file(ctx);
  remove_pid(program);
}

// Descriptors 0, 1 and 2 that were closed at start point to /dev/null, so that no file the
// daemon opens becomes its standard output or error and receives the trace.
void open_standard_descriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
      int null = ::open("/dev/null", O_RDWR);
      if (null >= 0 && null != fd) ::close(null);
    }
  }
}

}  // namespace

int run_daemon(int argc, char** argv) {
  open_standard_descriptors();
  // A trace reader that has gone away must not end the daemon: writes then simply fail.
  std::signal(SIGPIPE, SIG_IGN);
  if (argc == 2 && std::string_view(argv[1]) == "--version") {
    std::printf("ekadcdf %s\n", EKADCDF_VERSION);
    return 0;
  }
  if (argc == 2 && std::string_view(argv[1]) == "--help") {
    std::fputs(kUsageText, stdout);
    std::fputs(kAddedOptions, stdout);
    return 0;
  }
  keep_running = 1;
  // Full buffering: the trace is flushed before every sleep and at exit.
  static char stderr_buffer[1 << 16];
  std::setvbuf(stderr, stderr_buffer, _IOFBF, sizeof stderr_buffer);
  Tracer trace(stderr);
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
                error_message(error).c_str());
    fatal = true;
  } catch (const std::bad_alloc&) {
    std::printf("adcdf error: %d %d %s\n", kGroupMemory, kReasonAlloc,
                error_message(AdcdfError(kGroupMemory, kReasonAlloc, "no memory left")).c_str());
    fatal = true;
  }
  trace.leave(kOuterBlock);
  trace.flush();
  std::fflush(stdout);
  return fatal ? 1 : 0;
}

}  // namespace adcdf
