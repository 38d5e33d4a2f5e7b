// Feeds a whole audit byte stream through the processing loop and every converter.
//
// Input layout: byte 0 chooses the options, the rest is the audit file.
//   bit 0      debug mode (the trace goes to a memory stream or, with bit 3, to /dev/null)
//   bit 1      upshift off (-x)
//   bit 2      no error file (-e): the error entries go to /dev/null
//   bit 3      debug trace to /dev/null instead of a memory stream
//   bits 4-5   maxgen 0..3
//   bit 6      keep the output files of the previous run, so that the checkpoint, the torn-line
//              repair and the rotation work on what an earlier input left behind
//   bit 7      the file grows in pieces: byte 1 gives the piece size (1..256) and the audit data
//              starts at byte 2; each wait at the end of the file appends the next piece
// The run stops at the first wait after the data is used up, as a SIGTERM would stop the daemon.
//
// After each run the output generations must consist of complete records only (every line
// parses as a record prefix), no rotation side file may be left behind, no more generations may
// exist than maxgen allows, and with -e there is no error file. A run fed in pieces is repeated
// with the whole file at once: records, error entries and trace must be the same.

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "app/process_loop.h"
#include "stream/audit_input.h"
#include "stream/checkpoint.h"
#include "stream/context.h"
#include "stream/line_reader.h"
#include "support/trace.h"

namespace fs = std::filesystem;

namespace {

constexpr uintmax_t kKeptBytesLimit = 256 * 1024;

std::string g_dir;
std::FILE* g_devnull = nullptr;

void remove_dir() {
  if (!g_dir.empty()) {
    std::error_code ignored;
    fs::remove_all(g_dir, ignored);
  }
}

void clear_dir() {
  for (const auto& entry : fs::directory_iterator(g_dir)) fs::remove_all(entry.path());
}

uintmax_t dir_bytes() {
  uintmax_t total = 0;
  for (const auto& entry : fs::directory_iterator(g_dir)) {
    std::error_code ec;
    uintmax_t size = entry.file_size(ec);
    if (!ec) total += size;
  }
  return total;
}

// Hands the audit data over piece by piece, one piece per wait, then asks the loop to stop.
class PieceWaiter : public adcdf::Waiter {
 public:
  PieceWaiter(adcdf::MemorySource& source, std::vector<std::string_view> pieces)
      : source_(source), pieces_(std::move(pieces)) {}

  bool keep_going() override { return !stopped_; }
  void pause() override {
    if (next_ < pieces_.size()) {
      source_.append(pieces_[next_++]);
    } else {
      stopped_ = true;
    }
  }

 private:
  adcdf::MemorySource& source_;
  std::vector<std::string_view> pieces_;
  size_t next_ = 0;
  bool stopped_ = false;
};

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

[[noreturn]] void fail(const std::string& what, const fs::path& file, std::string_view detail) {
  std::fprintf(stderr, "INVARIANT BROKEN: %s in %s: [%.*s]\n", what.c_str(), file.c_str(),
               static_cast<int>(detail.size()), detail.data());
  std::abort();
}

// Every generation holds complete records; no side file of a rotation remains.
void check_outputs(const std::string& base_name, int maxgen, bool started_clean) {
  int generations = 0;
  for (const auto& entry : fs::directory_iterator(g_dir)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(".")) fail("rotation side file left behind", entry.path(), name);
    if (!name.starts_with(base_name + ".") || name == base_name + ".ERR" ||
        name == base_name + ".POS") {
      continue;
    }
    ++generations;
    std::string text = read_file(entry.path());
    if (!text.empty() && text.back() != '\n') fail("torn last line", entry.path(), text);
    size_t begin = 0;
    while (begin < text.size()) {
      size_t end = text.find('\n', begin);
      std::string_view line(text.data() + begin, end - begin);
      if (!adcdf::parse_prefix(line).complete()) fail("line is not a record", entry.path(), line);
      begin = end + 1;
    }
  }
  const int kept = maxgen < 1 ? 1 : maxgen;
  if (started_clean && generations > kept) {
    fail("more generations than maxgen", g_dir, std::to_string(generations));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A zone with summer time, given as a rule so that it needs no zone database.
  ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  ::tzset();
  std::string pattern =
      (fs::exists("/dev/shm") ? std::string("/dev/shm") : fs::temp_directory_path().string()) +
      "/ekadcdf-fuzz-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  g_dir = pattern;
  std::atexit(remove_dir);
  g_devnull = std::fopen("/dev/null", "w");
  return 0;
}

namespace {

// What one run left behind: every file of the directory with its content, and the trace.
struct RunResult {
  std::map<std::string, std::string> files;
  std::string trace;
};

// The files' contents, with the date of each type-999 header record left out: it is the date
// of the run, not of the audit data.
std::map<std::string, std::string> comparable(const std::map<std::string, std::string>& files) {
  std::map<std::string, std::string> out;
  for (const auto& [name, text] : files) {
    std::string kept;
    size_t begin = 0;
    while (begin < text.size()) {
      size_t end = std::min(text.find('\n', begin), text.size());
      std::string_view line(text.data() + begin, end - begin);
      kept.append(line.starts_with("999,") ? std::string_view("999") : line).push_back('\n');
      begin = end + 1;
    }
    out[name] = kept;
  }
  return out;
}

RunResult run(const adcdf::Options& options, bool memory_trace, std::string initial,
              std::vector<std::string_view> pieces) {
  char* trace_text = nullptr;
  size_t trace_size = 0;
  std::FILE* sink = memory_trace ? open_memstream(&trace_text, &trace_size) : g_devnull;
  {
    adcdf::Tracer tracer(sink);
    tracer.set_debug(options.debug);
    adcdf::MemorySource source(std::move(initial));
    PieceWaiter waiter(source, std::move(pieces));
    adcdf::AuditInput input(source, waiter);
    adcdf::Context ctx(options, tracer, input);
    adcdf::adcdf_process_file(ctx);
    tracer.flush();
  }
  RunResult result;
  if (sink != g_devnull) {
    std::fclose(sink);
    result.trace.assign(trace_text, trace_size);
    std::free(trace_text);
  }
  // The position file's content (file identities, a process id) differs from run to run.
  for (const auto& entry : fs::directory_iterator(g_dir)) {
    const std::string name = entry.path().filename().string();
    if (!name.ends_with(".POS")) result.files[name] = read_file(entry.path());
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t flags = data[0];
  std::string_view audit(reinterpret_cast<const char*>(data) + 1, size - 1);

  const bool debug = flags & 0x01;
  const bool memory_trace = debug && !(flags & 0x08);
  const bool keep_files = flags & 0x40;
  const bool in_pieces = flags & 0x80;

  adcdf::Options options;
  options.audit_file = "fuzz.audit";
  options.output_base = g_dir + "/cdf";
  options.debug = debug;
  options.upshift = !(flags & 0x02);
  options.noerr = flags & 0x04;
  options.max_generations = (flags >> 4) & 0x03;

  const bool started_clean = !keep_files || dir_bytes() > kKeptBytesLimit;
  if (started_clean) clear_dir();

  std::vector<std::string_view> pieces;
  if (in_pieces && !audit.empty()) {
    const size_t piece = 1 + static_cast<uint8_t>(audit[0]);
    audit.remove_prefix(1);
    for (size_t at = 0; at < audit.size(); at += piece) pieces.push_back(audit.substr(at, piece));
  }
  RunResult result =
      run(options, memory_trace, in_pieces ? std::string() : std::string(audit), pieces);
  check_outputs("cdf", options.max_generations, started_clean);
  if (options.noerr && started_clean && result.files.contains("cdf.ERR")) {
    fail("error file written with noerr", g_dir, result.files["cdf.ERR"]);
  }

  // A file that grows piece by piece converts exactly as the same file read at once.
  if (in_pieces && started_clean) {
    clear_dir();
    RunResult whole = run(options, memory_trace, std::string(audit), {});
    if (comparable(whole.files) != comparable(result.files)) {
      fail("output differs when the file grows in pieces", g_dir, audit);
    }
    if (whole.trace != result.trace) {
      fail("trace differs when the file grows in pieces", g_dir, result.trace);
    }
  }
  return 0;
}
