#include "record/recipients.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "stream/section_reader.h"

namespace adcdf {
namespace {

std::string_view without_newline(std::string_view text) {
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  return text;
}

bool is_gateway_queue(std::string_view queue) {
  for (std::string_view prefix : {"ekx400", "EKX400", "smintfc", "SMINTFC"}) {
    if (queue.substr(0, prefix.size()) == prefix) return true;
  }
  return false;
}

// A packed recipient: each text as its length (two bytes) and its characters, then one byte of
// flags and the reason's four bytes.
constexpr size_t kFixedBytes = 4 * sizeof(uint16_t) + 1 + sizeof(int);

char* put_text(char* at, std::string_view text) {
  const auto length = static_cast<uint16_t>(text.size());
  std::memcpy(at, &length, sizeof length);
  std::memcpy(at + sizeof length, text.data(), length);
  return at + sizeof length + length;
}

const char* get_text(const char* at, const char* end, std::string& text) {
  uint16_t length;
  if (end - at < static_cast<ptrdiff_t>(sizeof length)) return nullptr;
  std::memcpy(&length, at, sizeof length);
  at += sizeof length;
  if (end - at < length) return nullptr;
  text.assign(at, length);
  return at + length;
}

}  // namespace

void RecipientStore::begin_section(const std::string& spill_directory) {
  count_ = 0;
  unpacked_ = false;
  packed_.clear();
  packed_.room(Buffer::kMinCapacity);
  spill_.clear();
  spill_.set_directory(spill_directory);
}

Recipient& RecipientStore::next_slot() {
  if (unpacked_) pack(slot_);
  unpacked_ = false;
  slot_.category.clear();
  slot_.ack_req.clear();
  slot_.queue.clear();
  slot_.recip.clear();
  slot_.local = slot_.via_gateway = false;
  slot_.ndn_reason = 0;
  return slot_;
}

void RecipientStore::pack(const Recipient& r) {
  // The texts are cut to their limits when they are taken, far below what two bytes count.
  const size_t bytes =
      kFixedBytes + r.category.size() + r.ack_req.size() + r.queue.size() + r.recip.size();
  if (packed_.size() + bytes > memory_limit && !packed_.empty()) {
    spill_.append(packed_.view());
    packed_.clear();
  }
  char* at = packed_.room(bytes);
  for (const std::string* text : {&r.category, &r.ack_req, &r.queue, &r.recip}) {
    at = put_text(at, *text);
  }
  *at++ = static_cast<char>((r.local ? 1 : 0) | (r.via_gateway ? 2 : 0));
  std::memcpy(at, &r.ndn_reason, sizeof r.ndn_reason);
  packed_.commit_to(at + sizeof r.ndn_reason);
}

const char* RecipientStore::unpack_one(const char* at, const char* end) {
  for (std::string* text : {&slot_.category, &slot_.ack_req, &slot_.queue, &slot_.recip}) {
    if (at == nullptr) return nullptr;
    at = get_text(at, end, *text);
  }
  if (at == nullptr || end - at < static_cast<ptrdiff_t>(1 + sizeof slot_.ndn_reason)) {
    return nullptr;
  }
  slot_.local = (*at & 1) != 0;
  slot_.via_gateway = (*at & 2) != 0;
  std::memcpy(&slot_.ndn_reason, at + 1, sizeof slot_.ndn_reason);
  return at + 1 + sizeof slot_.ndn_reason;
}

void adcdf_get_recip_line(const FieldRules& rules, std::string_view source, Recipient& recipient,
                          int /*index*/) {
  TraceScope scope(rules.trace, "adcdf_get_recip_line");
  std::string_view line = without_newline(source);
  size_t hyphen = line.find('-');
  std::string_view category;
  bool has_address = false;
  std::string_view address;
  if (hyphen != std::string_view::npos) {
    std::string_view rest = line.substr(hyphen + 1);
    size_t blank = rest.find(' ');
    category = rest.substr(0, blank);
    if (blank != std::string_view::npos) {
      has_address = true;
      address = rest.substr(blank + 1);
    }
  }
  // "0" to "3" by the category's place in the list, "4" for any other.
  static constexpr std::string_view kCategories[] = {"to", "cc", "bcc", "from"};
  const auto place = std::ranges::find(kCategories, category) - std::begin(kCategories);
  recipient.category.assign(1, static_cast<char>('0' + place));
  if (has_address) {
    adcdf_clean_address(rules, address, recipient.recip, kRecipLimit);
  } else {
    recipient.recip.clear();
  }
  scope.done();
}

void adcdf_get_recip_info(Context& ctx, Recipient& recipient, int index) {
  TraceScope scope(ctx.trace, "adcdf_get_recip_info");
  FieldRules rules{ctx.trace, ctx.options.upshift};
  adcdf_get_recip_line(rules, ctx.line, recipient, index);
  adcdf_get_item(rules, next_section_line(ctx), 2, recipient.ack_req, kAckReqLimit);
  adcdf_get_varstring(rules, next_section_line(ctx), 2, recipient.queue, kQueueLimit);
  recipient.local = recipient.queue == "LOCAL";
  recipient.via_gateway = is_gateway_queue(recipient.queue);
  scope.done();
}

void adcdf_process_user(const FieldRules& rules, std::string_view source, UserFields out,
                        const UserLimits& limits) {
  TraceScope scope(rules.trace, "adcdf_process_user");
  std::string_view line = source;
  size_t ibreak4 = line.rfind(' ');
  size_t ibreak3 = ibreak4 == 0 || ibreak4 == std::string_view::npos ? std::string_view::npos
                                                                     : line.rfind(' ', ibreak4 - 1);
  size_t ibreak1 = line.find(' ');
  size_t ibreak2 =
      ibreak1 == std::string_view::npos ? std::string_view::npos : line.find(' ', ibreak1 + 1);
  bool four_breaks = ibreak3 != std::string_view::npos && ibreak2 != std::string_view::npos &&
                     ibreak1 < ibreak2 && ibreak2 < ibreak3;
  if (four_breaks) {
    assign_cut(out.name2, without_newline(line.substr(ibreak4 + 1)), limits.name2);
    assign_cut(out.name1, line.substr(ibreak3 + 1, ibreak4 - ibreak3 - 1), limits.name1);
    adcdf_clean_address(
        rules, line.substr(ibreak2 + 1, ibreak3 - ibreak2 - 1).substr(0, kAddressWorkLimit),
        out.mail_name, limits.mail_name);
    assign_cut(out.number, line.substr(ibreak1 + 1, ibreak2 - ibreak1 - 1), limits.number);
  } else {
    // Fewer than four blanks: the fields after the keyword, split at single blanks, fill the
    // values in order; those that are missing stay empty.
    std::string_view rest = without_newline(line);
    std::string_view parts[4];
    size_t blank = rest.find(' ');
    rest = blank == std::string_view::npos ? std::string_view{} : rest.substr(blank + 1);
    bool more = blank != std::string_view::npos;
    for (int i = 0; i < 4 && more; ++i) {
      size_t next = rest.find(' ');
      parts[i] = rest.substr(0, next);
      more = next != std::string_view::npos;
      if (more) rest.remove_prefix(next + 1);
    }
    assign_cut(out.number, parts[0], limits.number);
    adcdf_clean_address(rules, parts[1].substr(0, kAddressWorkLimit), out.mail_name,
                        limits.mail_name);
    assign_cut(out.name1, parts[2], limits.name1);
    assign_cut(out.name2, parts[3], limits.name2);
  }
  scope.done();
}

}  // namespace adcdf
