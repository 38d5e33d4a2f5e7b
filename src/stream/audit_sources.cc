#include "stream/audit_sources.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "support/error.h"
#include "support/hash.h"

namespace adcdf {
namespace {

timespec modified_of(const File& file) {
  struct stat st {};
  if (::fstat(file.fd(), &st) != 0)
    raise_file_error(kReasonRead, "cannot examine", file.name(), errno);
  return st.st_mtim;
}

}  // namespace

const std::string& ByteSource::name() const {
  static const std::string kNone;
  return kNone;
}

FileSource::FileSource(File file, std::string name)
    : file_(std::move(file)), name_(std::move(name)), regular_(file_.is_regular()) {}

std::unique_ptr<FileSource> FileSource::open(const std::string& name) {
  try {
    return std::make_unique<FileSource>(File::read_only(name, true), name);
  } catch (const AdcdfError&) {
    return nullptr;
  }
}

size_t FileSource::read(char* buffer, size_t size) {
  // read(), not pread(): the descriptor's offset shows how far the daemon has read.
  for (;;) {
    ssize_t n = ::read(file_.fd(), buffer, size);
    if (n >= 0) {
      if (!same_start(buffer, static_cast<size_t>(n))) {
        // Not one byte of it: the copy holds what followed the offset.
        if (::lseek(file_.fd(), static_cast<off_t>(position_), SEEK_SET) < 0)
          raise_file_error(kReasonRead, "cannot seek in", name_, errno);
        return 0;
      }
      position_ += n;
      return static_cast<size_t>(n);
    }
    if (errno != EINTR) raise_file_error(kReasonRead, "cannot read", name_, errno);
  }
}

void FileSource::seek(long long offset) {
  if (offset == position_) return;
  if (!regular_ || ::lseek(file_.fd(), static_cast<off_t>(offset), SEEK_SET) < 0) {
    raise_file_error(kReasonRead, "cannot seek in", name_, regular_ ? errno : ESPIPE);
  }
  position_ = offset;
  rewritten_ = false;
  head_.resize(static_cast<size_t>(std::min<long long>(offset, kFingerprintBytes)));
  head_.resize(read_head(head_.data(), head_.size()));
}

bool FileSource::same_start(const char* read, size_t n) {
  if (!regular_ || n == 0) return true;
  const size_t known = std::min<size_t>(head_.size(), static_cast<size_t>(position_));
  if (known > 0) {
    char now[kFingerprintBytes];
    if (read_head(now, known) != known || std::string_view(now, known) != head_.substr(0, known)) {
      rewritten_ = true;
      return false;
    }
  }
  if (position_ == static_cast<long long>(head_.size()) && head_.size() < kFingerprintBytes) {
    // Still within the first bytes, read in order: they are the start.
    head_.append(read, std::min<size_t>(n, kFingerprintBytes - head_.size()));
  }
  return true;
}

timespec FileSource::modified() const {
  return modified_of(file_);
}

std::unique_ptr<GzipSource> GzipSource::open(File file, std::string name) {
  File reading = File::duplicate(file.fd(), name);
  gzFile stream = ::gzdopen(reading.fd(), "rb");
  if (stream == nullptr) return nullptr;
  reading.release();  // the stream closes it
  std::unique_ptr<GzipSource> source(new GzipSource(std::move(file), std::move(name), stream));
  // gzread() passes bytes that are not gzip through unchanged: only a real gzip stream counts.
  if (::gzdirect(stream) != 0) return nullptr;
  return source;
}

GzipSource::GzipSource(File file, std::string name, gzFile stream)
    : file_(std::move(file)), name_(std::move(name)), stream_(stream) {
  ::gzbuffer(stream_, 64 * 1024);
  head_.resize(kFingerprintBytes);
  head_.resize(read(head_.data(), head_.size()));
  seek(0);
}

GzipSource::~GzipSource() {
  ::gzclose_r(stream_);
}

size_t GzipSource::read(char* buffer, size_t size) {
  if (failed_) return 0;
  size_t got = 0;
  while (got < size) {
    int want = static_cast<int>(std::min<size_t>(size - got, INT_MAX / 2));
    int n = ::gzread(stream_, buffer + got, static_cast<unsigned>(want));
    if (n < 0) {
      failed_ = true;
      break;
    }
    if (n == 0) {
      // A stream cut short reads as its end; gzip would call it an unexpected end of file.
      int code = Z_OK;
      ::gzerror(stream_, &code);
      if (code != Z_OK && code != Z_STREAM_END) failed_ = true;
      break;
    }
    got += static_cast<size_t>(n);
  }
  position_ += static_cast<long long>(got);
  return got;
}

void GzipSource::seek(long long offset) {
  if (offset == position_) return;
  if (offset < position_) {
    ::gzrewind(stream_);
    ::gzclearerr(stream_);
    failed_ = false;
    position_ = 0;
  }
  // Forward: decompress and drop what lies before `offset`.
  char skip[16 * 1024];
  while (position_ < offset) {
    size_t want = static_cast<size_t>(std::min<long long>(offset - position_, sizeof skip));
    if (read(skip, want) == 0) break;
  }
}

long long GzipSource::size() {
  if (!size_) {
    const long long at = position_;
    char skip[16 * 1024];
    while (read(skip, sizeof skip) > 0) {
    }
    size_ = position_;
    seek(at);
  }
  return *size_;
}

timespec GzipSource::modified() const {
  return modified_of(file_);
}

size_t MemorySource::read(char* buffer, size_t size) {
  const size_t n = data_.copy(buffer, size, pos_);
  pos_ += n;
  return n;
}

}  // namespace adcdf
