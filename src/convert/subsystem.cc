// subsystem-start and subsystem-stop sections: records 105 and 106.
#include "convert/converters.h"
#include "convert/engine.h"

namespace adcdf {
namespace {

enum : int { kSubsysno, kUser };
constexpr Field kFields[] = {{4, true}, {19, false}};

constexpr Keyword kStartKeywords[] = {
    {"subsystem ", Take::kItem, kSubsysno},
    {"user", Take::kItem, kUser},
};
constexpr Keyword kStopKeywords[] = {
    {"subsystem ", Take::kItem, kSubsysno},
    {"user", Take::kItem, kUser},
    {"duration", Take::kIgnore},
};

// clang-format off
constexpr Column kColumns[] = {
    bare(kSubsysno), kZero,           kZero,           kZero,
    spaced(kUser),   kEmpty,          kZero,           kZero,
    kZero,           kEmpty,          kZero,           kZero,
    kZero,           kEmpty,          kEmpty};
constexpr ColumnName kNames[] = {
    {"subsystem"},   kReserved,       kReserved,       kReserved,
    {"user_name"},   kReserved,       kReserved,       kReserved,
    kReserved,       kReserved,       kReserved,       kReserved,
    kReserved,       kReserved,       kReserved};
// clang-format on
constexpr Layout kStartRecord = named(105, kColumns, kNames);
constexpr Layout kStopRecord = named(106, kColumns, kNames);

constexpr ConverterDef kSubsysStart{"adcdf_do_subsysstart", Counting::kBeforeHeader, kFields,
                                    kStartKeywords,         &kStartRecord,           nullptr};
constexpr ConverterDef kSubsysStop{
    "adcdf_do_subsysstop", Counting::kBeforeHeader, kFields, kStopKeywords, &kStopRecord, nullptr};

}  // namespace

namespace converters {
const ConverterDef kSubsystemStart = checked(kSubsysStart);
const ConverterDef kSubsystemStop = checked(kSubsysStop);
}  // namespace converters

}  // namespace adcdf
