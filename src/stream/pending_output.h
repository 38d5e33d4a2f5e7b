// What the converted sections have produced and the files do not hold yet.
//
// Records and error-file entries accumulate here, section after section, and are committed
// together (see commit.h): while the daemon catches up, one write to each file carries many
// sections. The section in hand can always be taken back whole: a stop abandons it, a rotation
// of the audit file cuts it short, and neither leaves any of it in the files. A rotation of the
// generations that the section's header asked for waits here until the section is complete, so a
// section rotates the generations together with its records or not at all.
//
// Memory stays bounded whatever a section holds: once the section in hand has produced
// `section_limit` bytes while it is still being read, the complete sections before it are
// committed and its output moves to the spill files (support/spill_file.h), which then hold the
// beginning of its error entries and records; what it produces next follows in memory.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/buffer.h"
#include "support/spill_file.h"

namespace adcdf {

// The file operations of one rotation, decided (and traced) when the section header is read.
struct RotationPlan {
  std::optional<std::string> remove;                         // the oldest generation, if present
  std::vector<std::pair<std::string, std::string>> renames;  // from, to; highest first
  std::string header;                                        // the new generation's first record
};

struct PendingOutput {
  static constexpr size_t kSectionLimit = 1 << 20;
  // What the buffers keep of their memory once empty: twice what a commit usually carries.
  static constexpr size_t kKeepBytes = 512 * 1024;

  Buffer records;
  Buffer errors;
  // The beginning of the section in hand's records and error entries, when it outgrew memory.
  SpillFile records_spill;
  SpillFile errors_spill;
  size_t section_limit = kSectionLimit;
  std::optional<RotationPlan> rotation;  // asked for by the section in hand
  // When the oldest complete section not yet committed was complete.
  std::optional<std::chrono::steady_clock::time_point> since;

  // Marks where the section in hand begins; what comes before belongs to complete sections.
  void begin_section() {
    records_mark_ = records.size();
    errors_mark_ = errors.size();
    in_section_ = true;
  }
  void end_section() { in_section_ = false; }
  // Takes the section in hand back.
  void drop_section() {
    records.truncate(records_mark_);
    errors.truncate(errors_mark_);
    records_spill.clear();
    errors_spill.clear();
    rotation.reset();
    in_section_ = false;
  }

  // The bytes the section in hand keeps in memory.
  size_t section_size() const {
    return in_section_ ? records.size() - records_mark_ + errors.size() - errors_mark_ : 0;
  }
  bool spilled() const { return !records_spill.empty() || !errors_spill.empty(); }
  // Moves the section in hand's output to the spill files. Only when nothing before it is
  // pending.
  void spill_section() {
    records_spill.append(records.view());
    errors_spill.append(errors.view());
    records.clear();
    errors.clear();
  }
  // Forgets the section in hand's output so far, once it is in the files; the section stays in
  // hand. Only when nothing before it is pending.
  void forget_section() {
    records.clear();
    errors.clear();
    records_spill.clear();
    errors_spill.clear();
  }

  // What complete sections produced.
  std::string_view complete_records() const {
    return records.view().substr(0, in_section_ ? records_mark_ : records.size());
  }
  std::string_view complete_errors() const {
    return errors.view().substr(0, in_section_ ? errors_mark_ : errors.size());
  }
  size_t complete_size() const { return complete_records().size() + complete_errors().size(); }
  // Forgets what complete sections produced, once it is in the files.
  void forget_complete() {
    records.erase_front(complete_records().size());
    errors.erase_front(complete_errors().size());
    records_mark_ = errors_mark_ = 0;
    if (!in_section_) {
      // After a large section, what it needed is given back.
      records.clear_and_shrink(kKeepBytes);
      errors.clear_and_shrink(kKeepBytes);
    }
  }

 private:
  size_t records_mark_ = 0;
  size_t errors_mark_ = 0;
  bool in_section_ = false;
};

}  // namespace adcdf
