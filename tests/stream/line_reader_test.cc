#include "stream/line_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "temp_dir.h"

namespace adcdf {
namespace {

using Lines = std::vector<std::string>;
using testing::TempDir;

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

// A file copied and truncated, then written again past the offset between two reads (logrotate's
// copytruncate while the daemon is busy), reads as ended: the copy holds what followed the offset.
// A file that only grew reads on.
TEST(FileSource, RewrittenPastTheOffsetSinceTheLastReadReadsAsEnded) {
  const struct {
    const char* name;
    long long offset;
    bool resumed;  // reached by a seek, as at start, rather than by reading
    long differs;  // where the new data first differs from the old, or -1: only grown
  } cases[] = {{"within the first bytes", 100, false, 50},
               {"past the first bytes, differing at their last", 6000, false, 4095},
               {"resumed at an offset", 6000, true, 0},
               {"grown only", 6000, false, -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const std::string old_text(9000, 'o');
    dir.write("audit", old_text);
    auto source = FileSource::open(dir.file("audit"));
    ASSERT_TRUE(source);
    std::string buffer(20000, '\0');
    if (c.resumed) {
      source->seek(c.offset);
    } else {
      ASSERT_EQ(source->read(buffer.data(), 1), 1u);
      ASSERT_EQ(source->read(buffer.data(), c.offset - 1), static_cast<size_t>(c.offset - 1));
    }
    std::string new_text = old_text + "more";
    if (c.differs >= 0) new_text[c.differs] = 'n';
    dir.write("audit", new_text);
    const size_t n = source->read(buffer.data(), buffer.size());
    EXPECT_EQ(buffer.substr(0, n), c.differs >= 0 ? "" : new_text.substr(c.offset));
    EXPECT_EQ(source->rewritten(), c.differs >= 0);
  }
}

}  // namespace
}  // namespace adcdf
