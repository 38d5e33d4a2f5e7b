// Administrative sections: mailbox scan (102 per user), user sign-on and sign-off (103, 104),
// request server (109) and directory synchronisation (116, 117).
#include <array>

#include "convert/converters.h"
#include "convert/engine.h"

namespace adcdf {
namespace {

namespace ekscan {
enum : int {
  kUser,
  kUserMsgNo,
  kUserSize,
  kTray1Num,
  kTray1Size,
  kTray2Num,
  kTray2Size,
  kTray3Num,
  kTray3Size,
  kTray4Num,
  kTray4Size,
  kTray5Num,
  kTray5Size,
  kTrayNum
};
constexpr Field kFields[] = {{254, false}, {9, true}, {9, true}, {9, true}, {9, true},
                             {9, true},    {9, true}, {9, true}, {9, true}, {9, true},
                             {9, true},    {9, true}, {9, true}, {4, true}};
constexpr Keyword kKeywords[] = {
    {"user ", Take::kScanUser, kUser},
    {"user-messages", Take::kVarstring, kUserMsgNo},
    {"user-size", Take::kVarstring, kUserSize},
    {"tray", Take::kTray, kTray1Num, kTrayNum},
    {"duration", Take::kIgnore},
    {"bb-area-messages", Take::kIgnore},
    {"bb-area-size", Take::kIgnore},
};
// clang-format off
constexpr Column kColumns[] = {
    spaced(kUser),    bare(kUserMsgNo), bare(kUserSize),  bare(kTray1Num),
    bare(kTray1Size), bare(kTray2Num),  bare(kTray2Size), bare(kTray3Num),
    bare(kTray3Size), bare(kTray4Num),  bare(kTray4Size), bare(kTray5Num),
    bare(kTray5Size), kEmpty,           kEmpty};
constexpr ColumnName kNames[] = {
    {"mailbox_user"},  {"messages"},      {"mailbox_size"},  {"tray1_count"},
    {"tray1_size"},    {"tray2_count"},   {"tray2_size"},    {"tray3_count"},
    {"tray3_size"},    {"tray4_count"},   {"tray4_size"},    {"tray5_count"},
    {"tray5_size"},    kReserved,         kReserved};
// clang-format on
constexpr Layout kRecord = named(102, kColumns, kNames);
constexpr ConverterDef kDef{
    "adcdf_do_ekscan", Counting::kBeforeHeader, kFields, kKeywords, &kRecord, nullptr};
}  // namespace ekscan

namespace signon {
enum : int {
  kUserNum,
  kBrindleName,
  kUsername1,
  kUsername2,
  kSignonStatus,
  kClientType,
  kDesigNum,
  kDesigName
};
constexpr Field kFields[] = {{19, true}, {79, false}, {19, false}, {19, false},
                             {4, true},  {4, true},   {9, true},   {849, false}};
constexpr Keyword kKeywords[] = {
    {"user ", Take::kSignonUser, kUserNum},
    {"signon-status", Take::kItem, kSignonStatus},
    {"client-type", Take::kItem, kClientType},
    {"designate-user", Take::kNumberAndName, kDesigNum, kDesigName, 849},
    {"user-agent-id", Take::kIgnore},
};
// clang-format off
constexpr Column kColumns[] = {
    kZero,                kZero,                kZero,                kZero,
    spaced(kBrindleName), spaced(kUsername1),   bare(kUserNum),       bare(kSignonStatus),
    bare(kClientType),    spaced(kUsername2),   kZero,                kZero,
    bare(kDesigNum),      spaced(kDesigName),   kEmpty};
constexpr ColumnName kNames[] = {
    kReserved,                 kReserved,                kReserved,                kReserved,
    {"mail_system_name"},      {"user_name_1"},          {"user_number"},          {"signon_status"},
    {"client_type"},           {"user_name_2"},          kReserved,                kReserved,
    {"designate_user_number"}, {"designate_user_name"},  kReserved};
// clang-format on
constexpr Layout kRecord = named(103, kColumns, kNames);
constexpr ConverterDef kDef{
    "adcdf_do_usersignon", Counting::kAfterHeader, kFields, kKeywords, &kRecord, nullptr};
}  // namespace signon

namespace signoff {
enum : int { kUserNum, kBrindleName, kSignoffStatus, kDuration };
constexpr Field kFields[] = {{19, true}, {254, false}, {4, true}, {4, true}};
constexpr Keyword kKeywords[] = {
    {"user ", Take::kNumberAndName, kUserNum, kBrindleName, 1199},
    {"signoff-status", Take::kVarstring, kSignoffStatus},
    {"duration", Take::kVarstring, kDuration},
    {"designate-user", Take::kIgnore},
};
// clang-format off
constexpr Column kColumns[] = {
    kZero,                kZero,                kZero,                kZero,
    spaced(kBrindleName), kEmpty,               bare(kUserNum),       bare(kSignoffStatus),
    bare(kDuration),      kEmpty,               kZero,                kZero,
    kZero,                kEmpty,               kEmpty};
constexpr ColumnName kNames[] = {
    kReserved,            kReserved,            kReserved,            kReserved,
    {"mail_system_name"}, kReserved,            {"user_number"},      {"signoff_status"},
    {"duration"},         kReserved,            kReserved,            kReserved,
    kReserved,            kReserved,            kReserved};
// clang-format on
constexpr Layout kRecord = named(104, kColumns, kNames);
constexpr ConverterDef kDef{
    "adcdf_do_usersignoff", Counting::kAfterHeader, kFields, kKeywords, &kRecord, nullptr};
}  // namespace signoff

namespace request {
enum : int { kOrig, kUaMsgid, kOrigCap, kRequestName, kMtaMsgid };
constexpr Field kFields[] = {{849, false}, {254, false}, {4, true}, {79, false}, {254, false}};
constexpr Keyword kKeywords[] = {
    {"originator ", Take::kAddress, kOrig},
    {"ua-message-id", Take::kVarstring, kUaMsgid},
    {"originator-admin-cap", Take::kVarstring, kOrigCap},
    {"request-name", Take::kVarstring, kRequestName},
    {"mta-message-id", Take::kVarstring, kMtaMsgid},
    {"ua-ack-id", Take::kIgnore},
    {"mta-ack-id", Take::kIgnore},
    {"subject", Take::kIgnore},
};
// clang-format off
constexpr Column kColumns[] = {
    kZero,                kZero,                kZero,                kZero,
    spaced(kOrig),        spaced(kUaMsgid),     kZero,                kZero,
    kZero,                spaced(kRequestName), bare(kOrigCap),       kZero,
    kZero,                kEmpty,               spaced(kMtaMsgid)};
constexpr ColumnName kNames[] = {
    kReserved,            kReserved,            kReserved,            kReserved,
    {"originator"},       {"ua_message_id"},    kReserved,            kReserved,
    kReserved,            {"request_name"},     {"originator_admin_cap"}, kReserved,
    kReserved,            kReserved,            {"mta_message_id"}};
// clang-format on
constexpr Layout kRecord = named(109, kColumns, kNames);
constexpr ConverterDef kDef{
    "adcdf_do_requestserver", Counting::kBeforeHeader, kFields, kKeywords, &kRecord, nullptr};
}  // namespace request

namespace dirsync {
enum : int {
  kOriginator,
  kOperation,
  kCommand,
  kFlags,
  kReload,
  kExportDir,
  kImportDir,
  kMaxRepSize,
  kSendRef,
  kRequest
};
constexpr Field kFields[] = {{849, false}, {79, true},   {79, true}, {79, true}, {9, true},
                             {254, false}, {254, false}, {9, true},  {9, true},  {79, true}};
// The two directions differ only in the keyword of their first row.
constexpr std::array<Keyword, 12> keywords(std::string_view party) {
  return {{{party, Take::kAddress, kOriginator},
           {"operation", Take::kVarstring, kOperation},
           {"command", Take::kVarstring, kCommand},
           {"flags", Take::kVarstring, kFlags},
           {"reload-posn", Take::kVarstring, kReload},
           {"export-directory", Take::kVarstring, kExportDir},
           {"import-directory", Take::kVarstring, kImportDir},
           {"max-reply-size", Take::kVarstring, kMaxRepSize},
           {"sending-ref", Take::kVarstring, kSendRef},
           {"request-id", Take::kVarstring, kRequest},
           {"subject", Take::kIgnore},
           {"syn-timestamp", Take::kIgnore}}};
}
constexpr auto kInKeywords = keywords("originator");
constexpr auto kOutKeywords = keywords("recipient");
// clang-format off
constexpr Column kColumns[] = {
    bare(kOperation),    bare(kCommand),      bare(kFlags),        bare(kReload),
    spaced(kOriginator), spaced(kExportDir),  kZero,               bare(kMaxRepSize),
    kZero,               spaced(kImportDir),  bare(kSendRef),      bare(kRequest),
    kZero,               kEmpty,              kEmpty};
constexpr ColumnName kNames[] = {
    words("operation"),  words("command"),    words("flags"),      {"reload_position"},
    {"party"},           {"export_directory"}, kReserved,          {"max_reply_size"},
    kReserved,           {"import_directory"}, {"sending_ref"},    words("request_id"),
    kReserved,           kReserved,           kReserved};
// clang-format on
constexpr Layout kInRecord = named(116, kColumns, kNames);
constexpr Layout kOutRecord = named(117, kColumns, kNames);
constexpr ConverterDef kIn{
    "adcdf_do_dirsyncin", Counting::kAfterHeader, kFields, kInKeywords, &kInRecord, nullptr};
constexpr ConverterDef kOut{
    "adcdf_do_dirsyncout", Counting::kAfterHeader, kFields, kOutKeywords, &kOutRecord, nullptr};
}  // namespace dirsync

}  // namespace

namespace converters {
const ConverterDef kEkscan = checked(ekscan::kDef);
const ConverterDef kUserSignon = checked(signon::kDef);
const ConverterDef kUserSignoff = checked(signoff::kDef);
const ConverterDef kRequest = checked(request::kDef);
const ConverterDef kDirSyncIn = checked(dirsync::kIn);
const ConverterDef kDirSyncOut = checked(dirsync::kOut);
}  // namespace converters

}  // namespace adcdf
