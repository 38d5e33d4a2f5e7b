#include "stream/line_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace adcdf {
namespace {

using Lines = std::vector<std::string>;

Lines drain(LineReader& reader) {
  Lines lines;
  while (auto line = reader.next()) lines.emplace_back(*line);
  return lines;
}

const std::string k1199(LineReader::kMaxLine, 'x');

struct AppendCase {
  const char* name;
  std::vector<std::string> appends;  // the first is what the source holds at the start
  std::vector<Lines> expected;       // the lines available after each append
};

TEST(LineReader, HandsOnCompleteLinesAsTheyArrive) {
  const AppendCase cases[] = {
      {"plain", {"a\nbb\n\n"}, {{"a\n", "bb\n", "\n"}}},
      {"split across appends", {"ab", "c\nd", "\n"}, {{}, {"abc\n"}, {"d\n"}}},
      {"partial line held", {"a\nhalf", "", "way\n"}, {{"a\n"}, {}, {"halfway\n"}}},
      {"1199 then newline", {k1199 + "\n"}, {{k1199, "\n"}}},
      {"1300-character line",
       {std::string(1299, 'y') + "\n"},
       {{std::string(1199, 'y'), std::string(100, 'y') + "\n"}}},
      {"1199 without newline is handed on",
       {std::string(1198, 'z'), "z", "\n"},
       {{}, {std::string(1199, 'z')}, {"\n"}}},
      {"newline arrives after a held piece",
       {std::string(600, 'w'), std::string(600, 'w') + "\n"},
       {{}, {std::string(1199, 'w'), "w\n"}}},
      {"NUL cuts the view", {std::string("ab\0cd\n\0\nnext\n", 13)}, {{"ab", "", "next\n"}}},
  };
  for (const AppendCase& c : cases) {
    SCOPED_TRACE(c.name);
    MemorySource source(c.appends[0]);
    LineReader reader(source);
    for (size_t i = 0; i < c.appends.size(); ++i) {
      if (i > 0) source.append(c.appends[i]);
      EXPECT_EQ(drain(reader), c.expected[i]) << "after append " << i;
    }
  }
}

// Lines of many lengths, some longer than a read, through the smallest buffer the reader
// accepts, so lines keep straddling the buffer's end and the buffer is compacted often.
TEST(LineReader, SmallBufferKeepsEveryByteOnceInOrder) {
  std::string stream;
  unsigned seed = 12345;
  for (int i = 0; i < 400; ++i) {
    seed = seed * 1103515245u + 12345u;
    size_t length = (seed >> 8) % 97;
    if (i % 37 == 5) length = 1150 + (seed >> 4) % 2500;
    for (size_t k = 0; k < length; ++k) stream.push_back(static_cast<char>('a' + (i + k) % 26));
    stream.push_back('\n');
  }
  for (size_t chunk : {size_t{1}, size_t{7}, size_t{1000}, size_t{2398}, stream.size()}) {
    SCOPED_TRACE(chunk);
    MemorySource source;
    LineReader reader(source, 16);
    std::string joined;
    for (size_t pos = 0; pos < stream.size(); pos += chunk) {
      source.append(std::string_view(stream).substr(pos, chunk));
      for (const std::string& piece : drain(reader)) {
        // A whole line, or a full 1,199-character piece of a longer one.
        ASSERT_LE(piece.size(), LineReader::kMaxLine);
        ASSERT_EQ(piece.find('\n'), piece.back() == '\n' ? piece.size() - 1 : std::string::npos);
        ASSERT_TRUE(piece.back() == '\n' || piece.size() == LineReader::kMaxLine) << piece;
        joined += piece;
      }
    }
    EXPECT_EQ(joined, stream);
  }
}

}  // namespace
}  // namespace adcdf
