#include "stream/position.h"

#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "support/error.h"
#include "support/hash.h"

namespace adcdf {
namespace {

constexpr std::string_view kMagic = "ekadcdf-position 1\n";
constexpr std::string_view kCheck = "check ";

}  // namespace

std::string encode_position(const Position& p, uint64_t sequence) {
  char errors[32] = "-";
  if (p.errors_size) std::snprintf(errors, sizeof errors, "%lld", *p.errors_size);
  const LocalTime& l = p.last;
  char body[PositionFile::kSlot];
  int n = std::snprintf(
      body, sizeof body,
      "%ssequence %" PRIu64 "\naudit %lld %d %" PRIu32 " %016" PRIx64 " %" PRIu64 " %" PRIu64
      "\ncurrent %" PRIu64 " %" PRIu64 " %lld\nerrors %s\nlast %d %d %d %d %d %d\ncheckpoint %ld\n",
      kMagic.data(), sequence, p.offset, p.line, p.audit_head.length, p.audit_head.hash,
      p.audit_id.dev, p.audit_id.ino, p.current_id.dev, p.current_id.ino, p.current_size, errors,
      l.year, l.month, l.day, l.hour, l.minute, l.second, p.checkpoint);
  std::string text(body, static_cast<size_t>(n));
  char check[32];
  std::snprintf(check, sizeof check, "%016" PRIx64 "\n", fnv1a(text));
  return text.append(kCheck).append(check);
}

std::optional<std::pair<Position, uint64_t>> decode_position(std::string_view slot) {
  size_t check_at = slot.find(kCheck);
  if (!slot.starts_with(kMagic) || check_at == std::string_view::npos) return std::nullopt;
  // The slot as a C string, for sscanf; blanks and the line feed after the check stay.
  std::string text(slot.substr(0, std::min(slot.size(), check_at + 40)));
  uint64_t check = 0;
  if (std::sscanf(text.c_str() + check_at + kCheck.size(), "%16" SCNx64, &check) != 1 ||
      check != fnv1a(slot.substr(0, check_at))) {
    return std::nullopt;
  }
  Position p;
  uint64_t sequence = 0;
  char errors[32] = {};
  LocalTime& l = p.last;
  int got = std::sscanf(
      text.c_str() + kMagic.size(),
      "sequence %" SCNu64 " audit %lld %d %" SCNu32 " %" SCNx64 " %" SCNu64 " %" SCNu64
      " current %" SCNu64 " %" SCNu64 " %lld errors %31s last %d %d %d %d %d %d checkpoint %ld",
      &sequence, &p.offset, &p.line, &p.audit_head.length, &p.audit_head.hash, &p.audit_id.dev,
      &p.audit_id.ino, &p.current_id.dev, &p.current_id.ino, &p.current_size, errors, &l.year,
      &l.month, &l.day, &l.hour, &l.minute, &l.second, &p.checkpoint);
  if (got != 18) return std::nullopt;
  if (std::strcmp(errors, "-") != 0) {
    char* end = nullptr;
    p.errors_size = std::strtoll(errors, &end, 10);
    if (*end != '\0') return std::nullopt;
  }
  if (p.offset < 0 || p.current_size < 0 || (p.errors_size && *p.errors_size < 0)) {
    return std::nullopt;
  }
  return std::pair{p, sequence};
}

void PositionFile::lock(const std::string& name) {
  if (locked()) return;
  File file = File::read_write_create(name);
  if (::flock(file.fd(), LOCK_EX | LOCK_NB) != 0) {
    int err = errno;
    if (err != EWOULDBLOCK) raise_file_error(kReasonOpen, "cannot lock", name, err);
    char line[kPidLine + 1] = {};
    file.read_at(line, kPidLine, 0);
    long pid = 0;
    std::sscanf(line, "pid %ld", &pid);
    throw AdcdfError(kGroupFile, kReasonLocked,
                     name + " is held by process " + std::to_string(pid) +
                         ", an ekadcdf already running on this base name");
  }
  std::string pid = "pid " + std::to_string(::getpid());
  pid.resize(kPidLine - 1, ' ');
  pid.push_back('\n');
  file.write_at(pid, 0);
  file_ = std::move(file);
  read();
}

void PositionFile::read() {
  char slots[2 * kSlot];
  size_t got = file_.read_at(slots, sizeof slots, kPidLine);
  for (size_t i = 0; i < 2; ++i) {
    if (got < (i + 1) * kSlot) break;
    auto decoded = decode_position(std::string_view(slots + i * kSlot, kSlot));
    if (decoded && decoded->second >= sequence_) {
      sequence_ = decoded->second;
      newest_ = decoded->first;
    }
  }
}

PositionFile::~PositionFile() {
  if (!worker_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    closing_ = true;
  }
  wake_.notify_one();
  worker_.join();
}

void PositionFile::write(const Position& position, bool durable) {
  {
    std::lock_guard lock(mutex_);
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
    ++epoch_;
    job_.reset();
    put(position, durable);
  }
  newest_ = written_ = position;
  written_at_ = std::chrono::steady_clock::now();
}

void PositionFile::put(const Position& position, bool durable) {
  std::string slot = encode_position(position, ++sequence_);
  slot.resize(kSlot - 1, ' ');
  slot.push_back('\n');
  file_.write_at(slot, static_cast<long long>(kPidLine + ((sequence_ - 1) % 2) * kSlot));
  if (durable) file_.sync();
}

void PositionFile::settle() {
  std::call_once(settled_, [this] {
    file_.sync();
    sync_directory_of(file_.name());
  });
}

void PositionFile::hand_over(const std::optional<Position>& position, const Appender& current,
                             const Appender& errors) {
  handed_at_ = std::chrono::steady_clock::now();
  if (position) {
    newest_ = position;
    written_at_ = handed_at_;
  }
  if (!worker_.joinable()) {
    // Started with every signal blocked, which the thread keeps.
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
      worker_ = std::thread([this] { work(); });
    } catch (const std::system_error&) {
      // No thread to be had (a sandbox may forbid it): do the work here and now.
      pthread_sigmask(SIG_SETMASK, &previous, nullptr);
      settle();
      sync_descriptor(current.fd(), current.name());
      sync_descriptor(errors.fd(), errors.name());
      if (position) write(*position);
      return;
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  }
  Job job{position, File::duplicate(current.fd(), current.name()),
          File::duplicate(errors.fd(), errors.name()), 0};
  {
    std::lock_guard lock(mutex_);
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
    if (!job.position && job_) job.position = std::move(job_->position);
    job.epoch = epoch_;
    job_ = std::move(job);
  }
  wake_.notify_one();
}

void PositionFile::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return job_ || closing_; });
    if (!job_) return;
    Job job = std::move(*job_);
    job_.reset();
    lock.unlock();
    std::exception_ptr failed;
    try {
      settle();
      job.current.sync();
      job.errors.sync();
    } catch (...) {
      failed = std::current_exception();
    }
    lock.lock();
    try {
      if (!failed && job.position && job.epoch == epoch_) put(*job.position, false);
    } catch (...) {
      failed = std::current_exception();
    }
    if (failed && !failure_) failure_ = failed;
  }
}

}  // namespace adcdf
