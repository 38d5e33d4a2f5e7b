// File operations for the output files.
//
// Every failure throws AdcdfError naming the file and the system's reason, so the caller never
// has to check a result: a write that fails or writes short, a rename or removal that fails,
// an open that fails all end the daemon through the outer block. Nothing is buffered here: a
// write() call hands the bytes to the kernel, so once it returns they survive a crash of the
// process.
//
// The daemon often runs as root in a directory other accounts may write to, so no symbolic link
// is ever followed at a name it opens, creates, renames or removes: such a link is refused with
// an error naming it, and left as it is. A name is opened without blocking (a FIFO planted there
// cannot hold the daemon up) and what it opened must be a regular file, and one with no other
// link when it is opened for writing (a hard link planted there would have it write into a file
// elsewhere), before a byte is read, written or cut: else it is refused the same way, untouched.
// Files are created with mode 0640 (before the umask): the records hold addresses.
//
// Durability: a crash of the process loses nothing written, but a power cut keeps only what was
// made durable: a file's data by sync() (fdatasync), and the creation, rename or removal of a
// name by sync_directory_of() on its directory. Under ext4's default (ordered) mode names
// survive in the order they were made, while data not synced may be lost (a file created just
// before may come back empty); where only fsync promises anything, each name not covered by a
// directory sync may come back as it was before, independently of the others. The callers order
// their syncs so that every such state is one a restart repairs (see generations.h, position.h).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace adcdf {

// Which file a name or a descriptor refers to, as long as it exists.
struct FileId {
  uint64_t dev = 0;
  uint64_t ino = 0;
  bool operator==(const FileId&) const = default;
};

class File {
 public:
  File() = default;
  ~File() { close(); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  File(File&& other) noexcept : fd_(other.fd_), name_(std::move(other.name_)) { other.fd_ = -1; }
  File& operator=(File&& other) noexcept;

  // Opens for appending, creating an empty file when there is none.
  static File append(const std::string& name);
  // Opens for writing from the start, emptying an existing file.
  static File create(const std::string& name);
  // Opens for reading and writing, without creating or emptying.
  static File read_write(const std::string& name);
  // Opens for reading and writing, creating an empty file when there is none.
  static File read_write_create(const std::string& name);
  // Another descriptor of the open file `fd`, named `name`.
  static File duplicate(int fd, const std::string& name);
  // Opens for reading; `follow_links` for a file the daemon only reads (the audit file), which is
  // opened as it is, whatever it is.
  static File read_only(const std::string& name, bool follow_links = false);
  // Opens a regular file for reading without ever blocking, whatever is at the name (a FIFO, a
  // device): nothing, with the reason in `why`, when it cannot be opened or is no regular file.
  static std::optional<File> regular_for_reading(const std::string& name, bool follow_links,
                                                 std::string& why);
  // /dev/null, for writing what nobody keeps.
  static File null_device();
  // A new file without a name in `directory` (O_TMPFILE), for reading and writing: it never
  // appears in the directory, and the kernel frees it once it is closed, however the process
  // ends; after a power cut the file system's recovery frees it too. Nothing planted can be at
  // a name it does not have, and it can never be given one (O_EXCL).
  static File anonymous(const std::string& directory);

  int fd() const { return fd_; }
  const std::string& name() const { return name_; }
  // Gives the descriptor up to a new owner, which closes it.
  int release() { return std::exchange(fd_, -1); }

  // Writes all of `data` with as few system calls as the kernel allows.
  void write_all(std::string_view data);
  // Writes all of `data` at `offset`.
  void write_at(std::string_view data, long long offset);
  // Reads up to `size` bytes at `offset`; returns how many were read.
  size_t read_at(char* buffer, size_t size, long long offset) const;
  // The whole file, from its start.
  std::string contents() const;
  long long size() const;
  FileId id() const;
  bool is_regular() const;
  void truncate(long long length);
  // Waits until the data written so far is on the disk (fdatasync).
  void sync();
  void close();

 private:
  File(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}
  static File open_or_throw(const std::string& name, int flags);
  // Writes all of `data` at `offset`, or where the file's offset is when it is negative.
  void write_raw(std::string_view data, long long offset = -1);

  int fd_ = -1;
  std::string name_;
};

// A file that grows by whole pieces: each append is one write, and a failed one is cut back off
// the file, so the file always ends just after a complete piece. size() is what it holds.
class Appender {
 public:
  Appender() = default;
  explicit Appender(File file) : file_(std::move(file)), size_(file_.size()) {}

  const std::string& name() const { return file_.name(); }
  int fd() const { return file_.fd(); }
  long long size() const { return size_; }
  FileId id() const { return file_.id(); }

  void append(std::string_view data);
  // Cuts the file back to `length` bytes.
  void cut(long long length);
  // Waits until everything appended is on the disk; does nothing when nothing was appended
  // since the last time.
  void sync();
  void close() { file_.close(); }

 private:
  File file_;
  long long size_ = 0;
  bool unsynced_ = false;
};

// fdatasync of `fd`, the file `name`; nothing to do for special files such as /dev/null.
void sync_descriptor(int fd, const std::string& name);

// Whether a file, or anything else (a link too), has the name.
bool file_exists(const std::string& name);
// Throws AdcdfError when `name` is a symbolic link.
void refuse_link(const std::string& name);
// Throws AdcdfError when `name` holds anything but a regular file (a link, a FIFO, a socket, a
// device), or, when the daemon would write to it (`written`), a file with other links.
void refuse_planted(const std::string& name, bool written);
// The file at `name`, or nothing when there is none.
std::optional<FileId> file_id(const std::string& name);
// The directory `name` is in: "." for a bare name, "/" for one directly under the root.
std::string directory_of(const std::string& name);
// Makes the creations, renames and removals done in the directory of `name` durable (fsync).
void sync_directory_of(const std::string& name);
// Both refuse symbolic links at the names they are given.
void rename_file(const std::string& from, const std::string& to);
void remove_file(const std::string& name);

}  // namespace adcdf
