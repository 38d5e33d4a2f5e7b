// Where the daemon stands: the position file <base>.POS.
//
// A position says how far the audit file has been handled and what the output files held then,
// so that a restart cuts the output back to that state and reads on from there: nothing is lost
// and nothing is converted twice, whatever stopped the previous run.
//
// The file holds a line with the process id of the daemon that holds it, then two fixed-size
// slots. Each position is written whole into the slot the newer one does not occupy, with a
// sequence number and a checksum, by one pwrite. A crash or power loss in the middle of a write
// leaves that slot unreadable and the other one intact: the readable slot with the higher
// sequence number is the position. No temporary file and no rename are needed.
//
// The daemon holds an exclusive flock on the file for as long as it runs; a second daemon on the
// same base name finds the lock taken and refuses to start. The kernel drops the lock when the
// process ends, however it ends.
//
// A position is written only once the output it covers is on the disk, and the position of a
// start is made durable (settle: this file's data, and by a sync of the directory the names a
// start may have created here, <base>.ERR and <base>.000 too) before any record it does not cover
// is synced: by the worker before its first sync, by a rotation or a stop before theirs. Records
// may be appended before that; only their sync waits. A crash of the process loses nothing
// written here. A power cut keeps the slots as last synced (a position written by the worker or
// at a stop may be lost: the restart resumes at an older one and cuts the output back to it);
// under ext4's ordered mode this file may come back empty when it was created just before and
// never synced, and where only fsync counts its name may be lost too: without a durable
// position the records synced since could be converted again, which is why no record is synced
// before the start position is durable. While the daemon catches
// up, a worker thread keeps the output synced (several times a second, so that a rotation, which
// must sync the generation it moves, finds little left to wait for) and writes a position at most
// once a second, while the conversion goes on. It holds no signal (they all reach the main thread,
// whose sleep they must cut short) and touches nothing but its own duplicates of the output
// descriptors and this file. A position the daemon writes itself (start, rotation, stop) makes
// any the worker holds stale: the worker then syncs but does not write it.
//
// Slot format (text, padded with blanks to the slot size):
//   ekadcdf-position 1
//   sequence <n>
//   audit <offset> <next line number> <fingerprint length> <fingerprint hash> <dev> <inode>
//   current <dev> <inode> <size>              (<base>.000)
//   errors <size>                             ("errors -" when run without an error file)
//   last <year> <month> <day> <hour> <minute> <second>
//   checkpoint <seconds>
//   check <hash of the lines above>
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "stream/audit_input.h"
#include "stream/local_time.h"
#include "support/files.h"

namespace adcdf {

struct Position {
  long long offset = 0;  // the audit bytes handled
  int line = 1;          // the number the next audit line will carry
  Fingerprint audit_head;
  FileId audit_id;  // only to find the audit file again after a rename, never to validate
  FileId current_id;
  long long current_size = 0;
  std::optional<long long> errors_size;  // none when the run wrote no error file
  LocalTime last;                        // of the last section whose header was decoded
  long checkpoint = 0;
  bool operator==(const Position&) const = default;
};

// The slot text for `position` under sequence number `sequence`, without padding.
std::string encode_position(const Position& position, uint64_t sequence);
// A slot's position and sequence number; nothing when the slot is empty, torn or foreign.
std::optional<std::pair<Position, uint64_t>> decode_position(std::string_view slot);

class PositionFile {
 public:
  static constexpr size_t kSlot = 512;
  static constexpr size_t kPidLine = 64;

  PositionFile() = default;
  ~PositionFile();
  PositionFile(const PositionFile&) = delete;
  PositionFile& operator=(const PositionFile&) = delete;

  // Opens (creating it if needed) and locks <base>.POS, records this process's id in it and
  // reads its slots. Throws AdcdfError naming the daemon that holds it when the lock is taken.
  void lock(const std::string& name);
  bool locked() const { return file_.fd() >= 0; }

  // The newest position: the newest readable slot, or the one written or handed over since.
  const std::optional<Position>& newest() const { return newest_; }
  // The position this run last wrote itself (not through the worker).
  const std::optional<Position>& written() const { return written_; }
  // When this run last wrote or handed over a position, and last handed over anything.
  std::chrono::steady_clock::time_point written_at() const { return written_at_; }
  std::chrono::steady_clock::time_point handed_at() const { return handed_at_; }

  // Writes `position` into the older slot now; with `durable`, waits until it is on the disk.
  // What the worker holds of earlier positions is dropped: this one is newer.
  void write(const Position& position, bool durable = false);
  // Makes the position written at start and the names created beside it durable, the first
  // time it is called in a run (from either thread); see above.
  void settle();
  // Has the worker thread sync the two output files and then, when `position` is given, write
  // it, while the daemon converts on. The worker syncs duplicates of their descriptors, so the
  // daemon may close and rename the files meanwhile. What was handed over and not yet begun is
  // merged into this. Rethrows a failure of earlier work.
  void hand_over(const std::optional<Position>& position, const Appender& current,
                 const Appender& errors);

 private:
  struct Job {
    std::optional<Position> position;
    File current, errors;  // duplicated descriptors
    uint64_t epoch;
  };
  void read();
  void put(const Position& position, bool durable);
  void work();

  File file_;
  uint64_t sequence_ = 0;  // of the newest slot
  std::optional<Position> newest_;
  std::optional<Position> written_;
  std::chrono::steady_clock::time_point written_at_, handed_at_;

  std::thread worker_;
  std::mutex mutex_;  // guards what follows, and the slots while one is written
  std::condition_variable wake_;
  std::optional<Job> job_;  // waiting for the worker
  uint64_t epoch_ = 0;      // counts the positions written by the daemon itself
  bool closing_ = false;
  std::exception_ptr failure_;
  std::once_flag settled_;
};

}  // namespace adcdf
