// Gateway sections: X.400 (114, 115), Unix (110, 111), desk (112, 113), fax (107 per recipient)
// and SMS (119, 120). The twins of each gateway share their fields; their differences are in
// their keyword tables, their columns and when they count.
#include <array>

#include "convert/converters.h"
#include "convert/engine.h"

namespace adcdf {
namespace {

namespace x400 {
enum : int { kPriority, kSensitivity, kImportance, kOriginator, kUaMsgid, kMtaMsgid, kARND };
constexpr Field kFields[] = {{4, true},    {4, true},    {4, true}, {849, false},
                             {254, false}, {254, false}, {4, false}};
// The twins read their first seven keywords alike.
constexpr std::array<Keyword, 7> kSharedKeywords{{
    {"priority", Take::kItem, kPriority},
    {"sensitivity", Take::kItem, kSensitivity},
    {"importance", Take::kItem, kImportance},
    {"originator", Take::kFirstAddress, kOriginator},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"mta-message-id", Take::kMta, kMtaMsgid},
    {"mta_message-id", Take::kMta, kMtaMsgid},
}};
constexpr auto kInKeywords = join(kSharedKeywords, std::array<Keyword, 7>{{
                                                       {"all-recips-non-deliv", Take::kYes, kARND},
                                                       {"type", Take::kIgnore},
                                                       {"ua-ack-id", Take::kIgnore},
                                                       {"subject", Take::kIgnore},
                                                       {"recipient", Take::kIgnore},
                                                       {"some-recips-non-deliv", Take::kIgnore},
                                                       {"non-delivery-reason", Take::kIgnore},
                                                   }});
constexpr auto kOutKeywords = join(kSharedKeywords, std::array<Keyword, 6>{{
                                                        {"recipient", Take::kCount},
                                                        {"all-recips-non-deliv", Take::kYes, kARND},
                                                        {"ua-ack-id", Take::kIgnore},
                                                        {"subject", Take::kIgnore},
                                                        {"non-delivery-reason", Take::kIgnore},
                                                        {"mta-ack-id", Take::kIgnore},
                                                    }});
// x400-out's record is x400-in's with three more columns.
// clang-format off
constexpr std::array<Column, 15> kInColumns{
    kZero,               bare(kPriority),     bare(kSensitivity),  bare(kImportance),
    spaced(kOriginator), spaced(kUaMsgid),    spaced(kARND),       kZero,
    kZero,               kEmpty,              kZero,               kZero,
    kZero,               kEmpty,              spaced(kMtaMsgid)};
constexpr std::array<ColumnName, 15> kInNames{
    kReserved,           {"priority"},        {"sensitivity"},     {"importance"},
    {"originator"},      {"ua_message_id"},   {"all_recipients_non_delivered"}, kReserved,
    kReserved,           kReserved,           kReserved,           kReserved,
    kReserved,           kReserved,           {"mta_message_id"}};
// clang-format on
constexpr auto kOutColumns =
    join(kInColumns, std::array<Column, 3>{kEmpty, kZero, col(Col::kCount)});
constexpr auto kOutNames =
    join(kInNames, std::array<ColumnName, 3>{kReserved, kReserved, {"recipient_count"}});
constexpr Layout kInRecord = named(114, kInColumns, kInNames);
constexpr Layout kOutRecord = named(115, kOutColumns, kOutNames);
constexpr ConverterDef kIn{
    "adcdf_do_x400in", Counting::kAfterHeader, kFields, kInKeywords, &kInRecord, nullptr};
constexpr ConverterDef kOut{
    "adcdf_do_x400out", Counting::kBeforeHeader, kFields, kOutKeywords, &kOutRecord, nullptr};
}  // namespace x400

namespace unix_gw {
enum : int { kOriginator, kUaMsgid, kType, kReason, kMtaMsgid, kUnixMsgid };
constexpr Field kFields[] = {{949, false}, {254, false}, {4, true},
                             {4, true},    {254, false}, {254, false}};
constexpr Keyword kInKeywords[] = {
    {"originator", Take::kAddress, kOriginator},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"unix-message-id", Take::kIgnore},
    {"subject", Take::kIgnore},
    {"recipient", Take::kIgnore},
};
constexpr Keyword kOutKeywords[] = {
    {"originator", Take::kAddress, kOriginator},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"type", Take::kItem, kType},
    {"non-delivery-reason", Take::kVarstring, kReason},
    {"mta-message-id", Take::kVarstring, kMtaMsgid},
    {"recipient", Take::kCount},
    {"unix-message-id", Take::kVarstring, kUnixMsgid},
    {"ua-ack-id", Take::kIgnore},
    {"hop-count", Take::kIgnore},
    {"unix-ack-id", Take::kIgnore},
    {"subject", Take::kIgnore},
    {"ack-id", Take::kIgnore},
};
// clang-format off
constexpr Column kInColumns[] = {
    kZero,               kZero,               kZero,               kZero,
    spaced(kOriginator), spaced(kUaMsgid),    kZero,               kZero,
    kZero,               kEmpty,              kZero,               kZero,
    kZero,               kEmpty,              kEmpty};
constexpr Column kOutColumns[] = {
    bare(kType),         kZero,               kZero,               kZero,
    spaced(kOriginator), spaced(kUaMsgid),    bare(kReason),       kZero,
    kZero,               kEmpty,              kZero,               kZero,
    kZero,               kEmpty,              spaced(kMtaMsgid),   spaced(kUnixMsgid),
    kEmpty,              kZero,               col(Col::kCount)};
constexpr ColumnName kInNames[] = {
    kReserved,           kReserved,           kReserved,           kReserved,
    {"originator"},      {"ua_message_id"},   kReserved,           kReserved,
    kReserved,           kReserved,           kReserved,           kReserved,
    kReserved,           kReserved,           kReserved};
constexpr ColumnName kOutNames[] = {
    {"message_type"},    kReserved,           kReserved,           kReserved,
    {"originator"},      {"ua_message_id"},   {"non_delivery_reason"}, kReserved,
    kReserved,           kReserved,           kReserved,           kReserved,
    kReserved,           kReserved,           {"mta_message_id"},  {"unix_message_id"},
    kReserved,           kReserved,           {"recipient_count"}};
// clang-format on
constexpr Layout kInRecord = named(110, kInColumns, kInNames);
constexpr Layout kOutRecord = named(111, kOutColumns, kOutNames);
constexpr ConverterDef kIn{
    "adcdf_do_unixin", Counting::kBeforeHeader, kFields, kInKeywords, &kInRecord, nullptr};
constexpr ConverterDef kOut{
    "adcdf_do_unixout", Counting::kBeforeHeader, kFields, kOutKeywords, &kOutRecord, nullptr};
}  // namespace unix_gw

namespace desk {
enum : int { kOriginator, kType, kUaMsgid, kReason, kDeskMsgid };
constexpr Field kFields[] = {{849, false}, {4, true}, {254, false}, {4, true}, {79, false}};
constexpr Keyword kInKeywords[] = {
    {"originator", Take::kAddress, kOriginator},
    {"type", Take::kItem, kType},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"non-delivery-reason", Take::kVarstring, kReason},
    {"desk-message-id", Take::kItem, kDeskMsgid},
    {"subject", Take::kIgnore},
    {"recipient", Take::kIgnore},
    {"ua-ack-id", Take::kIgnore},
    {"desk-ack-id", Take::kIgnore},
    {"foreign-ack", Take::kIgnore},
};
constexpr Keyword kOutKeywords[] = {
    {"originator", Take::kAddress, kOriginator},
    {"type", Take::kItem, kType},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"non-delivery-reason", Take::kVarstring, kReason},
    {"recipient", Take::kCount},
    {"subject", Take::kIgnore},
    {"ua-ack-id", Take::kIgnore},
    {"mta-message-id", Take::kIgnore},
    {"mta-ack-id", Take::kIgnore},
};
// clang-format off
constexpr Column kInColumns[] = {
    bare(kType),         kZero,               kZero,               kZero,
    spaced(kOriginator), spaced(kUaMsgid),    bare(kReason),       kZero,
    kZero,               spaced(kDeskMsgid),  kZero,               kZero,
    kZero,               kEmpty,              kEmpty};
constexpr Column kOutColumns[] = {
    bare(kType),         kZero,               kZero,               kZero,
    spaced(kOriginator), spaced(kUaMsgid),    bare(kReason),       kZero,
    kZero,               kEmpty,              kZero,               kZero,
    kZero,               kEmpty,              kEmpty,              col(Col::kCount)};
constexpr ColumnName kInNames[] = {
    {"message_type"},    kReserved,           kReserved,           kReserved,
    {"originator"},      {"ua_message_id"},   {"non_delivery_reason"}, kReserved,
    kReserved,           {"desk_message_id"}, kReserved,           kReserved,
    kReserved,           kReserved,           kReserved};
constexpr ColumnName kOutNames[] = {
    {"message_type"},    kReserved,           kReserved,           kReserved,
    {"originator"},      {"ua_message_id"},   {"non_delivery_reason"}, kReserved,
    kReserved,           kReserved,           kReserved,           kReserved,
    kReserved,           kReserved,           kReserved,           {"recipient_count"}};
// clang-format on
constexpr Layout kInRecord = named(112, kInColumns, kInNames);
constexpr Layout kOutRecord = named(113, kOutColumns, kOutNames);
constexpr ConverterDef kIn{
    "adcdf_do_deskin", Counting::kAfterHeader, kFields, kInKeywords, &kInRecord, nullptr};
constexpr ConverterDef kOut{
    "adcdf_do_deskout", Counting::kAfterHeader, kFields, kOutKeywords, &kOutRecord, nullptr};
}  // namespace desk

namespace fax {
enum : int {
  kPriority,
  kSensitivity,
  kImportance,
  kOriginator,
  kUaMsgid,
  kMtaMsgid,
  kDuration,
  kReason,
  kRetries,
  kSentPages,
  kSentTime
};
constexpr Field kFields[] = {{4, true},    {4, true},    {4, true},  {849, false},
                             {254, false}, {254, false}, {4, true},  {4, true},
                             {4, true},    {4, true},    {79, false}};
constexpr Keyword kKeywords[] = {
    {"priority", Take::kItem, kPriority},
    {"sensitivity", Take::kItem, kSensitivity},
    {"importance", Take::kItem, kImportance},
    {"originator", Take::kAddress, kOriginator},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"duration", Take::kVarstring, kDuration},
    {"non-delivery-reason", Take::kVarstring, kReason},
    {"retries", Take::kVarstring, kRetries},
    {"sent-pages", Take::kVarstring, kSentPages},
    {"sent-time", Take::kVarstring, kSentTime},
    {"recipient", Take::kRecipient},
    {"mta-message-id", Take::kVarstring, kMtaMsgid},
    {"subject", Take::kIgnore},
};
// clang-format off
constexpr Column kColumns[] = {
    kZero,                  bare(kPriority),        bare(kSensitivity),     bare(kImportance),
    spaced(kOriginator),    spaced(kUaMsgid),       bare(kReason),          bare(kDuration),
    col(Col::kCategory),    col(Col::kRecipSpaced), bare(kRetries),         bare(kSentPages),
    spaced(kSentTime),      kEmpty,                 spaced(kMtaMsgid)};
constexpr ColumnName kNames[] = {
    kReserved,              {"priority"},           {"sensitivity"},        {"importance"},
    {"originator"},         {"ua_message_id"},      {"non_delivery_reason"}, {"duration"},
    {"recipient_kind"},     {"recipient"},          {"retries"},            {"sent_pages"},
    {"sent_time"},          kReserved,              {"mta_message_id"}};
// clang-format on
constexpr Layout kRecord = named(107, kColumns, kNames);
constexpr ConverterDef kDef{.name = "adcdf_do_faxgateway",
                            .counting = Counting::kBeforeHeader,
                            .fields = kFields,
                            .keywords = kKeywords,
                            .section_record = nullptr,
                            .recipient_record = &kRecord,
                            .recipients = RecipientArrayUse::kBeforeHeader,
                            .alloc_status = 110,
                            .grow_status = 111};
}  // namespace fax

namespace sms {
enum : int { kMsgSize, kReason };
constexpr Field kFields[] = {{9, true}, {4, true}};
constexpr Keyword kKeywords[] = {
    {"message-size", Take::kItem, kMsgSize},
    {"non-delivery-reason", Take::kVarstring, kReason},
};
// clang-format off
constexpr Column kColumns[] = {
    kEmpty,         kZero,          kZero,          kZero,
    kEmpty,         kEmpty,         bare(kReason),  bare(kMsgSize),
    kZero,          kEmpty,         kZero,          kZero,
    kZero,          kEmpty,         kEmpty};
constexpr ColumnName kNames[] = {
    kReserved,      kReserved,      kReserved,      kReserved,
    kReserved,      kReserved,      {"non_delivery_reason"}, {"message_size"},
    kReserved,      kReserved,      kReserved,      kReserved,
    kReserved,      kReserved,      kReserved};
// clang-format on
constexpr Layout kInRecord = named(119, kColumns, kNames);
constexpr Layout kOutRecord = named(120, kColumns, kNames);
constexpr ConverterDef kIn{"adcdf_do_smsin", Counting::kAfterHeader, kFields, kKeywords, &kInRecord,
                           nullptr};
constexpr ConverterDef kOut{
    "adcdf_do_smsout", Counting::kAfterHeader, kFields, kKeywords, &kOutRecord, nullptr};
}  // namespace sms

}  // namespace

namespace converters {
const ConverterDef kX400In = checked(x400::kIn);
const ConverterDef kX400Out = checked(x400::kOut);
const ConverterDef kUnixIn = checked(unix_gw::kIn);
const ConverterDef kUnixOut = checked(unix_gw::kOut);
const ConverterDef kDeskIn = checked(desk::kIn);
const ConverterDef kDeskOut = checked(desk::kOut);
const ConverterDef kFax = checked(fax::kDef);
const ConverterDef kSmsIn = checked(sms::kIn);
const ConverterDef kSmsOut = checked(sms::kOut);
}  // namespace converters

}  // namespace adcdf
