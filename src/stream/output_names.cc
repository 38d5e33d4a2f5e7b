#include "stream/output_names.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "support/error.h"
#include "support/files.h"

namespace adcdf {

OutputNames::OutputNames(std::string base) : base_(std::move(base)) {
  size_t slash = base_.rfind('/');
  std::string dir = slash == std::string::npos ? "" : base_.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? base_ : base_.substr(slash + 1);
  const char* const kSuffixes[] = {"new", "old", "journal"};
  for (size_t i = 0; i < sides_.size(); ++i) {
    sides_[i] = dir + "." + name + "-rotation." + kSuffixes[i];
  }
}

std::string OutputNames::generation(int number) const {
  char suffix[16];
  std::snprintf(suffix, sizeof suffix, ".%03d", number);
  return base_ + suffix;
}

bool OutputNames::is_generation_or_side(const std::string& name) const {
  if (std::find(sides_.begin(), sides_.end(), name) != sides_.end()) return true;
  for (int i = 0; i < kMostGenerations; ++i) {
    if (name == generation(i)) return true;
  }
  return false;
}

void OutputNames::check(int maxgen, bool noerr) const {
  // The names written come first: the position file, the journal and the new generation of a
  // rotation, the error file and the current generation.
  std::vector<std::string> names = {position(), journal(), fresh()};
  if (!noerr) names.push_back(errors());
  const size_t written = names.size() + 1;
  for (int i = 0; i < std::clamp(maxgen, 1, kMostGenerations); ++i) names.push_back(generation(i));
  names.push_back(doomed());

  const std::string dir = directory_of(base_);
  // A directory that is not there is reported by the first open.
  const long name_max = ::pathconf(dir.c_str(), _PC_NAME_MAX);
  const long path_max = ::pathconf(dir.c_str(), _PC_PATH_MAX);
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string& name = names[i];
    const size_t component = name.size() - (name.rfind('/') + 1);  // npos + 1 is 0
    if ((name_max > 0 && component > static_cast<size_t>(name_max)) ||
        (path_max > 0 && name.size() >= static_cast<size_t>(path_max))) {
      raise_file_error(kReasonOpen, "cannot create", name, ENAMETOOLONG);
    }
    refuse_planted(name, i < written);
  }
}

}  // namespace adcdf
