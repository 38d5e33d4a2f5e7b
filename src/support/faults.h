// A seam for tests to make file operations fail. In the daemon no injector is installed and
// every check is one load of a null pointer.
#pragma once

#include <string>

namespace adcdf {

enum class FileOp { kOpen, kWrite, kRename, kRemove, kTruncate };

class FaultInjector {
 public:
  virtual ~FaultInjector() = default;
  // An errno value to fail `op` on `name` with, or 0 to let it run. For kWrite, `*partial`
  // may be set to the number of bytes to write before failing (a short write).
  virtual int fail(FileOp op, const std::string& name, size_t* partial) = 0;
};

// Installs `injector` (null removes it) and returns the previous one.
FaultInjector* set_fault_injector(FaultInjector* injector);
FaultInjector* fault_injector();

}  // namespace adcdf
