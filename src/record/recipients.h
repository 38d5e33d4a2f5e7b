// Recipients and user lines.
//
// A recipient line 'recipient-<category> <address>' fills a Recipient: the category word after the
// first hyphen gives "0" to "3" for to, cc, bcc, from and "4" for anything else; the rest of the
// line is the address, cleaned. In a routing section the two lines after it (acknowledgement
// request, then queue) belong to the recipient too.
//
// RecipientStore keeps a section's recipients in reading order, packed one after the other in
// a buffer that is reused from one section to the next, so a busy server's sections do not
// allocate once it has grown. It holds at most `memory_limit` bytes: past that, the packed
// recipients go to an anonymous temporary file (support/spill_file.h) in large pieces and are
// read back from it, in order, when the section's records are written; a section of a million
// recipients takes no more memory than one of ten thousand. The recipient stored last stays
// unpacked in its slot until the next one, since a delivery section's reason line may still
// change it.
#pragma once

#include <string>
#include <string_view>

#include "record/fields.h"
#include "support/buffer.h"
#include "support/spill_file.h"

namespace adcdf {

struct Context;

struct Recipient {
  std::string category;      // "0".."4"
  std::string ack_req;       // at most 2 characters
  std::string queue;         // at most 127 characters
  std::string recip;         // cleaned address, at most 849 characters with its appended blank
  bool local = false;        // queue is exactly "LOCAL"
  bool via_gateway = false;  // queue starts with a gateway queue name
  int ndn_reason = 0;
};

class RecipientStore {
 public:
  static constexpr size_t kMemoryLimit = 1 << 20;

  // Starts a section's store; past the memory limit, recipients go to a file in
  // `spill_directory`. Throws std::bad_alloc when the first block cannot be had.
  void begin_section(const std::string& spill_directory);
  // The slot for the next recipient, reset to an empty recipient (reason 0). Throws
  // std::bad_alloc when the store cannot grow. The recipient counts once stored.
  Recipient& next_slot();
  void store() {
    ++count_;
    unpacked_ = true;
  }

  int size() const { return static_cast<int>(count_); }
  bool empty() const { return count_ == 0; }
  // The recipient stored last.
  Recipient& back() { return slot_; }
  // Calls visit(Recipient&) with each stored recipient in reading order (in a slot it may change),
  // once the section has been read; what a large section needed is given back after.
  template <typename Visit>
  void for_each(Visit&& visit);

  size_t memory_limit = kMemoryLimit;
  // What the store keeps of its memory after a section.
  static constexpr size_t kKeepBytes = 64 * 1024;

 private:
  void pack(const Recipient& recipient);
  // Unpacks the whole recipients at the front of `packed` into slot_, visiting each; returns the
  // bytes they took.
  template <typename Visit>
  size_t unpack(std::string_view packed, Visit& visit);
  // Reads one packed recipient from `at` into slot_; null when `end` comes first.
  const char* unpack_one(const char* at, const char* end);

  Recipient slot_;         // the recipient stored last, then the one being visited
  bool unpacked_ = false;  // slot_ holds a stored recipient not packed yet
  Buffer packed_;
  SpillFile spill_;
  size_t count_ = 0;
};

template <typename Visit>
void RecipientStore::for_each(Visit&& visit) {
  if (unpacked_) pack(slot_);
  unpacked_ = false;
  if (!spill_.empty()) {
    // Read back in pieces as large as the memory kept; a piece's last recipient may be cut, and
    // is then read again at the front of the next.
    Buffer piece;
    const size_t room = std::max(memory_limit, Buffer::kMinCapacity);
    for (long long at = 0; at < spill_.size();) {
      size_t got = spill_.read_at(piece.room(room), room, at);
      piece.commit_to(piece.view().data() + got);
      at += static_cast<long long>(unpack(piece.view(), visit));
      piece.clear();
    }
  }
  unpack(packed_.view(), visit);
  packed_.clear_and_shrink(kKeepBytes);
  spill_.clear();
}

template <typename Visit>
size_t RecipientStore::unpack(std::string_view packed, Visit& visit) {
  const char* at = packed.data();
  const char* const end = at + packed.size();
  while (const char* next = unpack_one(at, end)) {
    visit(slot_);
    at = next;
  }
  return static_cast<size_t>(at - packed.data());
}

constexpr size_t kAckReqLimit = 2;
constexpr size_t kQueueLimit = 127;
constexpr size_t kRecipLimit = 849;

void adcdf_get_recip_line(const FieldRules& rules, std::string_view source, Recipient& recipient,
                          int index);
// Fills the recipient from its line and from the two lines after it, which it reads.
void adcdf_get_recip_info(Context& ctx, Recipient& recipient, int index);

// The four values of a user line, with the most characters each may hold.
struct UserFields {
  std::string& number;
  std::string& mail_name;
  std::string& name1;
  std::string& name2;
};
struct UserLimits {
  size_t number, mail_name, name1, name2;
};
void adcdf_process_user(const FieldRules& rules, std::string_view source, UserFields out,
                        const UserLimits& limits);

}  // namespace adcdf
