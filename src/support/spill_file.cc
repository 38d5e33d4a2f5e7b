#include "support/spill_file.h"

#include "support/error.h"

namespace adcdf {

void SpillFile::append(std::string_view bytes) {
  if (bytes.empty()) return;
  if (file_.fd() < 0) {
    try {
      file_ = File::anonymous(directory_);
    } catch (const AdcdfError&) {
      // A file system without anonymous files (some network ones): the system's own.
      file_ = File::anonymous("/tmp");
    }
  }
  file_.write_at(bytes, size_);
  size_ += static_cast<long long>(bytes.size());
}

void SpillFile::clear() {
  if (size_ == 0) return;
  file_.truncate(0);
  size_ = 0;
}

}  // namespace adcdf
