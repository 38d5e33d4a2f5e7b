// A seam for tests to make file operations fail, and to watch what reaches the disk. In the
// daemon no injector is installed and every check is one load of a null pointer.
#pragma once

#include <cstddef>
#include <string>

namespace adcdf {

// kSync is the fdatasync of one file, kSyncDirectory the fsync of a directory, which makes the
// creations, renames and removals of names in it durable.
enum class FileOp { kOpen, kWrite, kTruncate, kSync, kRename, kRemove, kSyncDirectory };

struct FileEvent {
  FileOp op;
  const std::string& name;          // the file; for kSyncDirectory the directory
  int fd = -1;                      // the open file (kOpen once done, kWrite, kTruncate, kSync)
  const std::string* to = nullptr;  // the new name of a kRename
};

class FaultInjector {
 public:
  virtual ~FaultInjector() = default;
  // Before the operation: an errno value to fail it with, or 0 to let it run. For kWrite,
  // `*partial` may be set to the number of bytes to write before failing (a short write).
  virtual int fail(const FileEvent& event, size_t* partial) = 0;
  // Once the operation has succeeded.
  virtual void done(const FileEvent& /*event*/) {}
};

// Installs `injector` (null removes it) and returns the previous one.
FaultInjector* set_fault_injector(FaultInjector* injector);
FaultInjector* fault_injector();

}  // namespace adcdf
