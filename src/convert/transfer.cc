// Message transfer sections: routing (101 and 503 per recipient), delivery (108 and 504 per
// recipient) and bulletin (118).
#include "convert/converters.h"
#include "convert/engine.h"

namespace adcdf {
namespace {

namespace routing {
enum : int {
  kType,
  kPriority,
  kSensitivity,
  kImportance,
  kLocal,
  kHopCount,
  kOriginator,
  kUaMsgid,
  kMsgSize,
  kReason,
  kMtaMsgid,
  kPartCount,
  kSubject
};
constexpr Field kFields[] = {{4, true},    {4, true},    {4, true},    {4, true}, {4, true},
                             {4, true},    {849, false}, {254, false}, {9, true}, {4, true},
                             {254, false}, {4, true},    {257, false}};
constexpr Keyword kKeywords[] = {
    {"type", Take::kItem, kType},
    {"priority", Take::kItem, kPriority},
    {"sensitivity", Take::kItem, kSensitivity},
    {"importance", Take::kItem, kImportance},
    {"created-locally", Take::kItem, kLocal},
    {"hop-count", Take::kItem, kHopCount},
    {"originator", Take::kAddress, kOriginator},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"recipient", Take::kRecipientInfo},
    {"message-size", Take::kItem, kMsgSize},
    {"mta-message-id", Take::kVarstring, kMtaMsgid},
    {"part-count", Take::kItem, kPartCount},
    {"subject", Take::kVarstring, kSubject},
    {"ua-ack-id", Take::kIgnore},
    {"mta-ack-id", Take::kIgnore},
    {"designate-originator", Take::kIgnore},
    {"part-type", Take::kIgnore},
    {"part-size", Take::kIgnore},
    {"ack-req", Take::kIgnore},
    {"max-nest-depth", Take::kIgnore},
    {"delivered-count", Take::kIgnore},
    {"all-recips-non-deliv", Take::kIgnore},
    {"non-delivery-reason", Take::kItem, kReason},
};
// clang-format off
constexpr Column kSectionColumns[] = {
    bare(kType),         bare(kPriority),     bare(kSensitivity),  bare(kImportance),
    spaced(kOriginator), spaced(kUaMsgid),    bare(kReason),       bare(kMsgSize),
    text("x"),           kEmpty,              bare(kLocal),        bare(kHopCount),
    text("x"),           kEmpty,              spaced(kMtaMsgid),   spaced(kSubject),
    bare(kPartCount),    col(Col::kCount)};
constexpr Column kRecipientColumns[] = {
    spaced(kOriginator), spaced(kUaMsgid),    bare(kReason),       bare(kMsgSize),
    col(Col::kCategory), col(Col::kAckReq),   col(Col::kQueue),    col(Col::kRecip),
    col(Col::kLocal),    col(Col::kGateway)};
constexpr ColumnName kSectionNames[] = {
    {"message_type"},    {"priority"},        {"sensitivity"},     {"importance"},
    {"originator"},      {"ua_message_id"},   {"non_delivery_reason"}, {"message_size"},
    kReserved,           kReserved,           {"created_locally"}, {"hop_count"},
    kReserved,           kReserved,           {"mta_message_id"},  {"subject"},
    {"part_count"},      {"recipient_count"}};
constexpr ColumnName kRecipientNames[] = {
    {"originator"},      {"ua_message_id"},   {"non_delivery_reason"}, {"message_size"},
    {"recipient_kind"},  {"ack_request"},     {"queue"},           {"recipient"},
    {"local_queue"},     {"gateway_queue"}};
// clang-format on
constexpr Layout kSectionRecord = named(101, kSectionColumns, kSectionNames);
constexpr Layout kRecipientRecord = named(503, kRecipientColumns, kRecipientNames);
constexpr ConverterDef kDef{.name = "adcdf_do_routing",
                            .counting = Counting::kBeforeHeader,
                            .fields = kFields,
                            .keywords = kKeywords,
                            .section_record = &kSectionRecord,
                            .recipient_record = &kRecipientRecord,
                            .recipients = RecipientArrayUse::kAfterHeader,
                            .alloc_status = 105,
                            .grow_status = 103,
                            .announce_read = true};
}  // namespace routing

namespace delivery {
enum : int {
  kType,
  kOrig,
  kUaMsgid,
  kMtaMsgid,
  kReason,
  kAutoNotify,
  kAutoForward,
  kAutoReply,
  kAutoFile,
  kAutoPrint,
  kDeliveredCount
};
constexpr Field kFields[] = {{4, true}, {849, false}, {254, false}, {254, false},
                             {4, true}, {4, true},    {4, true},    {4, true},
                             {4, true}, {4, true},    {4, true}};
constexpr Keyword kKeywords[] = {
    {"type", Take::kItem, kType},
    {"originator", Take::kAddress, kOrig},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"recipient", Take::kRecipient},
    {"auto-forward", Take::kVarstring, kAutoForward},
    {"auto-notify", Take::kVarstring, kAutoNotify},
    {"auto-reply", Take::kVarstring, kAutoReply},
    {"auto-file", Take::kVarstring, kAutoFile},
    {"auto-print", Take::kVarstring, kAutoPrint},
    {"non-delivery-reason", Take::kDeliveryReason, kReason},
    {"mta-message-id", Take::kVarstring, kMtaMsgid},
    {"delivered-count", Take::kVarstring, kDeliveredCount},
    {"ua-ack-id", Take::kIgnore},
    {"mta-ack-id", Take::kIgnore},
    {"subject", Take::kIgnore},
    {"new-ua-message-id", Take::kIgnore},
};
// clang-format off
constexpr Column kSectionColumns[] = {
    bare(kType),           kZero,                 kZero,                 kZero,
    spaced(kOrig),         spaced(kUaMsgid),      bare(kReason),         bare(kAutoNotify),
    bare(kAutoReply),      bare(kDeliveredCount), bare(kAutoFile),       bare(kAutoPrint),
    bare(kAutoForward),    kEmpty,                spaced(kMtaMsgid)};
constexpr ColumnName kSectionNames[] = {
    {"message_type"},      kReserved,             kReserved,             kReserved,
    {"originator"},        {"ua_message_id"},     {"non_delivery_reason"}, {"auto_notify"},
    {"auto_reply"},        {"delivered_count"},   {"auto_file"},         {"auto_print"},
    {"auto_forward"},      kReserved,             {"mta_message_id"}};
// clang-format on
constexpr Column kRecipientColumns[] = {spaced(kOrig), spaced(kUaMsgid), col(Col::kReason),
                                        col(Col::kRecip)};
constexpr ColumnName kRecipientNames[] = {
    {"originator"}, {"ua_message_id"}, {"non_delivery_reason"}, {"recipient"}};
constexpr Layout kSectionRecord = named(108, kSectionColumns, kSectionNames);
constexpr Layout kRecipientRecord = named(504, kRecipientColumns, kRecipientNames);
constexpr ConverterDef kDef{.name = "adcdf_do_delivery",
                            .counting = Counting::kBeforeHeader,
                            .fields = kFields,
                            .keywords = kKeywords,
                            .section_record = &kSectionRecord,
                            .recipient_record = &kRecipientRecord,
                            .recipients = RecipientArrayUse::kBeforeHeader,
                            .alloc_status = 105,
                            .grow_status = 103};
}  // namespace delivery

namespace bulletin {
enum : int { kType, kOriginator, kUaMsgid, kBulletin, kMtaMsgid };
constexpr Field kFields[] = {{4, true}, {849, false}, {254, false}, {79, false}, {254, false}};
constexpr Keyword kKeywords[] = {
    {"type", Take::kItem, kType},
    {"originator", Take::kAddress, kOriginator},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"bulletin-name", Take::kVarstring, kBulletin},
    {"mta-message-id", Take::kVarstring, kMtaMsgid},
    {"ua-ack-id", Take::kIgnore},
    {"mta-ack-id", Take::kIgnore},
    {"subject", Take::kIgnore},
    {"bulletin-type", Take::kIgnore},
};
// clang-format off
constexpr Column kColumns[] = {
    bare(kType),         kZero,               kZero,               kZero,
    spaced(kOriginator), spaced(kUaMsgid),    kZero,               kZero,
    kZero,               spaced(kBulletin),   kZero,               kZero,
    kZero,               kEmpty,              quoted(kMtaMsgid)};
constexpr ColumnName kNames[] = {
    {"message_type"},    kReserved,           kReserved,           kReserved,
    {"originator"},      {"ua_message_id"},   kReserved,           kReserved,
    kReserved,           {"bulletin_name"},   kReserved,           kReserved,
    kReserved,           kReserved,           {"mta_message_id"}};
// clang-format on
constexpr Layout kRecord = named(118, kColumns, kNames);
constexpr ConverterDef kDef{
    "adcdf_do_bulletin", Counting::kBeforeHeader, kFields, kKeywords, &kRecord, nullptr};
}  // namespace bulletin

}  // namespace

namespace converters {
const ConverterDef kRouting = checked(routing::kDef);
const ConverterDef kDelivery = checked(delivery::kDef);
const ConverterDef kBulletin = checked(bulletin::kDef);
}  // namespace converters

}  // namespace adcdf
