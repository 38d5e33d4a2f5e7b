// Recipients and user lines.
//
// A recipient line 'recipient-<category> <address>' fills a recrep: the category word after the
// first hyphen gives "0" to "3" for to, cc, bcc, from and "4" for anything else; the rest of the
// line is the address, cleaned. In a routing section the two lines after it (acknowledgement
// request, then queue) belong to the recipient too.
//
// RecipientArray keeps a section's recipients in reading order. Its slots are reused from one
// section to the next, so a busy server's sections do not allocate once the array has grown.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "record/fields.h"

namespace adcdf {

struct Context;

struct recrep {
  std::string category;       // "0".."4"
  std::string ack_req;        // at most 2 characters
  std::string queue;          // at most 127 characters
  std::string recip;          // cleaned address, at most 849 characters with its appended blank
  bool local = false;         // queue is exactly "LOCAL"
  bool brindleRoute = false;  // queue starts with a gateway queue name
  int ndnReason = 0;
};

class RecipientArray {
 public:
  // Starts a section's array. Throws std::bad_alloc when the first block cannot be had.
  void begin_section();
  // The slot for the next recipient, reset to an empty recipient (reason 0). Throws
  // std::bad_alloc when the array cannot grow. The recipient counts once stored.
  recrep& next_slot();
  void store() { ++count_; }

  int size() const { return static_cast<int>(count_); }
  bool empty() const { return count_ == 0; }
  recrep& operator[](int i) { return slots_[static_cast<size_t>(i)]; }
  recrep& back() { return slots_[count_ - 1]; }

 private:
  std::vector<recrep> slots_;
  size_t count_ = 0;
};

constexpr size_t kAckReqLimit = 2;
constexpr size_t kQueueLimit = 127;
constexpr size_t kRecipLimit = 849;

int adcdf_get_recip_line(const FieldRules& rules, std::string_view pszSource, recrep& recipient,
                         int index);
// Fills the recipient from its line and from the two lines after it, which it reads.
int adcdf_get_recip_info(Context& ctx, recrep& recipient, int index);

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
int adcdf_process_user(const FieldRules& rules, std::string_view pszSource, UserFields out,
                       const UserLimits& limits);

}  // namespace adcdf
