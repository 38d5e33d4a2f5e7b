// The names of the files the daemon keeps for a base name, and the checks they must pass before
// the daemon creates any of them.
//
//   <base>.000 ... <base>.099   the generations
//   <base>.ERR                  the error file
//   <base>.POS                  the position file (and the lock)
//   .<name>-rotation.new/.old/.journal, beside them, where <name> is the base's last component:
//                               the side files of a rotation, which exist only while it runs
#pragma once

#include <array>
#include <string>

namespace adcdf {

class OutputNames {
 public:
  static constexpr int kMostGenerations = 100;

  explicit OutputNames(std::string base);

  // "<base>.%03d"
  std::string generation(int number) const;
  std::string errors() const { return base_ + ".ERR"; }
  std::string position() const { return base_ + ".POS"; }
  const std::string& fresh() const { return sides_[0]; }    // the new generation while written
  const std::string& doomed() const { return sides_[1]; }   // the oldest on its way out
  const std::string& journal() const { return sides_[2]; }  // the renames of a rotation

  // Whether `name` is one of these names: a generation or a side file.
  bool is_generation_or_side(const std::string& name) const;

  // Before any file is created: every name a run with `maxgen` generations (and an error file
  // unless `noerr`) may create must fit the file system's limits, and hold nothing but a regular
  // file now (no link, FIFO, socket or device), with no other link where the daemon writes.
  // Throws AdcdfError naming the first that fails.
  void check(int maxgen, bool noerr) const;

 private:
  std::string base_;
  std::array<std::string, 3> sides_;
};

}  // namespace adcdf
