#include "convert/engine.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "record/fields.h"
#include "record/recipients.h"
#include "record/record_writer.h"
#include "stream/commit.h"
#include "stream/section_reader.h"
#include "support/error.h"
#include "support/tokenizer.h"

namespace adcdf {
namespace {

class Converter {
 public:
  Converter(Context& ctx, const ConverterDef& def, int& counter, ConverterWork& work)
      : ctx_(ctx), def_(def), counter_(counter), w_(work), rules_{ctx.trace, ctx.options.upshift} {}

  void run();

 private:
  void reset_values();
  void begin_recipients();
  Recipient& next_recipient();
  void apply(const Keyword& keyword, std::string_view line);
  void take_tray(const Keyword& keyword, std::string_view line);
  void skipped(std::string_view line);
  void write(const Layout& layout, Recipient* recipient);
  void bound_output() { bound_section_output(ctx_, read_whole_); }
  std::string& value(int field) { return w_.values[static_cast<size_t>(field)]; }
  size_t limit(int field) const { return def_.fields[static_cast<size_t>(field)].limit; }

  Context& ctx_;
  const ConverterDef& def_;
  int& counter_;
  ConverterWork& w_;
  FieldRules rules_;
  int skipped_ = 0;          // lines of this section reported as skipped
  bool read_whole_ = false;  // the blank line has been read
};

void Converter::run() {
  TraceScope scope(ctx_.trace, def_.name);
  if (def_.counting == Counting::kPassedOver) {
    while (next_section_line(ctx_) != kBlankLine) {
    }
    count_up(counter_);
    scope.done();
    return;
  }
  bool counted = false;
  try {
    reset_values();
    if (def_.counting == Counting::kBeforeHeader) {
      count_up(counter_);
      counted = true;
    }
    if (def_.recipients == RecipientArrayUse::kBeforeHeader) begin_recipients();
    if (adcdf_get_generic(ctx_) == Header::kSkip) return;
    if (def_.counting == Counting::kAfterHeader) {
      count_up(counter_);
      counted = true;
    }
    if (def_.recipients == RecipientArrayUse::kAfterHeader) begin_recipients();
    if (def_.announce_read) ctx_.trace.printf("Starting record read...\n");

    for (;;) {
      std::string_view line = next_section_line(ctx_);
      if (const Keyword* match = def_.index.match(line)) {
        apply(*match, line);
      } else if (line == kBlankLine) {
        break;
      } else {
        skipped(line);
      }
    }
  } catch (...) {
    // Abandoned at a stop or cut short by the audit file's rotation: not a section converted,
    // and its skipped lines never reach the error file.
    if (counted) count_up(counter_, -1);
    ctx_.metrics.errors.skipped_line -= skipped_;
    throw;
  }

  read_whole_ = true;
  if (ctx_.output.spilled()) write_section_part(ctx_);
  if (def_.section_record != nullptr) write(*def_.section_record, nullptr);
  if (def_.recipient_record != nullptr) {
    w_.recipients.for_each([this](Recipient& r) { write(*def_.recipient_record, &r); });
  }
  scope.done();
}

void Converter::reset_values() {
  if (w_.values.size() < def_.fields.size()) w_.values.resize(def_.fields.size());
  for (size_t i = 0; i < def_.fields.size(); ++i) {
    w_.values[i] = def_.fields[i].numeric ? "0" : "";
  }
  w_.count = 0;
  w_.got_first = false;
  w_.event.clear();
}

void Converter::begin_recipients() {
  try {
    w_.recipients.begin_section(ctx_.spill_directory);
  } catch (const std::bad_alloc&) {
    ctx_.trace.printf("Attempt to allocate pRecipArray failed.\n");
    char message[64];
    std::snprintf(message, sizeof message, "Fatal error (%d)! - Unable to allocate memory.\n",
                  def_.alloc_status);
    commit_output(ctx_);
    ctx_.errlog.append(message);
    throw ProcessExit{def_.alloc_status};
  }
}

Recipient& Converter::next_recipient() {
  try {
    return w_.recipients.next_slot();
  } catch (const std::bad_alloc&) {
    char message[80];
    std::snprintf(message, sizeof message,
                  "Fatal Error (%d) - Unable to allocate additional memory.\n", def_.grow_status);
    ctx_.trace.write(message);
    throw ProcessExit{def_.grow_status};
  }
}

void Converter::apply(const Keyword& keyword, std::string_view line) {
  const int f = keyword.field;
  switch (keyword.take) {
    case Take::kItem:
      adcdf_get_item(rules_, line, 2, value(f), limit(f));
      break;
    case Take::kVarstring:
      adcdf_get_varstring(rules_, line, 2, value(f), limit(f));
      break;
    case Take::kMta:
      adcdf_get_varstring_mta(rules_, line, 2, value(f), limit(f));
      break;
    case Take::kFirstAddress:
      if (w_.got_first) break;
      w_.got_first = true;
      [[fallthrough]];
    case Take::kAddress:
      adcdf_get_address(rules_, line, 2, value(f), limit(f));
      break;
    case Take::kYes:
      value(f) = "yes";
      break;
    case Take::kCount:
      count_up(w_.count);
      break;
    case Take::kIgnore:
      break;
    case Take::kRecipient:
    case Take::kRecipientInfo: {
      Recipient& recipient = next_recipient();
      if (keyword.take == Take::kRecipient) {
        adcdf_get_recip_line(rules_, line, recipient, w_.recipients.size());
      } else {
        adcdf_get_recip_info(ctx_, recipient, w_.recipients.size());
      }
      w_.recipients.store();
      count_up(w_.count);
      break;
    }
    case Take::kDeliveryReason:
      adcdf_get_varstring(rules_, line, 2, value(f), limit(f));
      if (!w_.recipients.empty()) {
        w_.recipients.back().ndn_reason = static_cast<int>(parse_long(value(f)));
      }
      break;
    case Take::kSignonUser:
      adcdf_process_user(rules_, line, {value(f), value(f + 1), value(f + 2), value(f + 3)},
                         {limit(f), limit(f + 1), limit(f + 2), limit(f + 3)});
      break;
    case Take::kNumberAndName: {
      std::string_view copy = line.substr(0, keyword.copy_limit);
      adcdf_get_item(rules_, copy, 2, value(f), limit(f));
      adcdf_get_address(rules_, copy, 3, value(keyword.field2), limit(keyword.field2));
      break;
    }
    case Take::kScanUser:
      if (!value(f).empty()) write(*def_.section_record, nullptr);
      adcdf_get_address(rules_, line, 2, value(f), limit(f));
      break;
    case Take::kTray:
      take_tray(keyword, line);
      break;
  }
}

// A tray line 'tray <n> <x> <count> <size>': n must be 1 to 5 (read from the word as cut to the
// number's limit); any other n reports the line as skipped and changes nothing.
void Converter::take_tray(const Keyword& keyword, std::string_view line) {
  std::string& number = value(keyword.field2);
  adcdf_get_item(rules_, line, 2, number, limit(keyword.field2));
  long n = parse_long(number);
  if (n < 1 || n > kTrays) {
    skipped(line);
    return;
  }
  int count_field = keyword.field + 2 * static_cast<int>(n - 1);
  adcdf_get_item(rules_, line, 4, value(count_field), limit(count_field));
  adcdf_get_item(rules_, line, 5, value(count_field + 1), limit(count_field + 1));
}

void Converter::skipped(std::string_view line) {
  Buffer& errors = ctx_.output.errors;
  errors.append("Skipped line: ");
  append_number(errors, ctx_.line_number);
  errors.append("\nLine = ");
  errors.append(line);
  errors.push_back('\n');
  ++skipped_;
  ++ctx_.metrics.errors.skipped_line;
  bound_output();
}

void Converter::write(const Layout& layout, Recipient* recipient) {
  if (w_.event.empty()) append_event_columns(w_.event, ctx_.event);
  Buffer& out = ctx_.output.records;
  const size_t room = kNumberBytes + 1 + w_.event.size() + def_.record_bound;
  char* const start = out.room(room);
  RecordCursor line(start, layout.type, w_.event);
  for (const Column& column : layout.columns) {
    switch (column.kind) {
      case Col::kText:
        line.bare(column.text);
        break;
      case Col::kBare:
        line.bare(value(column.field));
        break;
      case Col::kSpaced:
        if (value(column.field).empty()) value(column.field) = " ";
        [[fallthrough]];
      case Col::kQuoted:
        line.quoted(value(column.field));
        break;
      case Col::kCount:
        line.number(w_.count);
        break;
      case Col::kCategory:
        line.bare(recipient->category);
        break;
      case Col::kAckReq:
        line.bare(recipient->ack_req);
        break;
      case Col::kQueue:
        line.quoted(recipient->queue);
        break;
      case Col::kRecipSpaced:
        if (recipient->recip.empty()) recipient->recip = " ";
        [[fallthrough]];
      case Col::kRecip:
        line.quoted(recipient->recip);
        break;
      case Col::kLocal:
        line.bare(recipient->local ? "1" : "0");
        break;
      case Col::kGateway:
        line.bare(recipient->via_gateway ? "1" : "0");
        break;
      case Col::kReason:
        line.number(recipient->ndn_reason);
        break;
    }
  }
  char* const end = line.end();
  assert(static_cast<size_t>(end - start) <= room);
  out.commit_to(end);
  bound_output();
}

}  // namespace

void run_converter(Context& ctx, const ConverterDef& def, int& counter, ConverterWork& work) {
  Converter(ctx, def, counter, work).run();
}

}  // namespace adcdf
