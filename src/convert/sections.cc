#include "convert/sections.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

namespace adcdf {
namespace {

static_assert(std::ranges::all_of(kKinds, [](const SectionKind& kind) {
  return kind.label.size() < 23 && (kind.name_line.empty() || kind.name_line.ends_with('\n'));
}));

// For each first character, the kinds whose name line begins with it, so that a line is
// compared with a few names at most.
struct NameIndex {
  std::array<std::array<uint8_t, 8>, 256> kinds{};  // 1 + the kind's row, 0 ending the list

  constexpr NameIndex() {
    for (size_t row = 0; row < std::size(kKinds); ++row) {
      if (kKinds[row].name_line.empty()) continue;
      auto& list = kinds[static_cast<unsigned char>(kKinds[row].name_line[0])];
      size_t at = 0;
      while (list[at] != 0) ++at;
      if (at + 1 >= list.size()) throw "too many names with one first character";
      list[at] = static_cast<uint8_t>(row + 1);
    }
  }
};
constexpr NameIndex kNameIndex;

}  // namespace

const SectionKind* find_section(std::string_view line) {
  if (line.empty()) return nullptr;
  for (uint8_t row : kNameIndex.kinds[static_cast<unsigned char>(line[0])]) {
    if (row == 0) break;
    if (kKinds[row - 1].name_line == line) return &kKinds[row - 1];
  }
  return nullptr;
}

std::string statistics_text(const Counters& counters) {
  std::string text =
      "Statistics:\n\nSection name           Number\n-----------------------------\n";
  for (size_t i = 0; i < counters.size(); ++i) {
    std::string label(kKinds[i].label);
    label.resize(23, ' ');
    text += label + std::to_string(counters[i]) + "\n";
  }
  return text + "\n";
}

void SectionConverter::convert(Context& ctx, const SectionKind& kind) {
  run_converter(ctx, *kind.def, counters_[static_cast<size_t>(&kind - kKinds)], work_);
}

}  // namespace adcdf
