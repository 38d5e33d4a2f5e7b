// Crash consistency: a daemon killed with SIGKILL at random moments and restarted, again and
// again, must end with the records of an uninterrupted run, apart from the sections of each
// restart's checkpoint second, which a restart converts again. No line may be torn, no temporary
// file may stay behind, and every generation holds the records of one day.
#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <set>

#include "daemon_harness.h"

namespace daemon_test {
namespace {

const std::vector<std::string> kArgs = {"-a", "audit", "-b", "cdf", "-d"};

struct Section {
  long time;
  std::string text;
  int records;  // how many records it yields
};

// A few thousand sections of the common kinds over four calendar days (UTC), with unique,
// strictly increasing event times, so that each second holds the records of one section.
std::vector<Section> generate_audit() {
  std::mt19937 rng(15);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  const char* const kCategories[] = {"to", "cc", "bcc"};
  std::vector<Section> sections;
  long t = 1699920000 + 3600;  // 2023-11-14 01:00:00
  for (int i = 0; i < 3000; ++i) {
    t += 1 + pick(200);
    const std::string n = std::to_string(i);
    std::string text = (pick(5) == 0 ? "\n" : "");  // blank lines between some sections
    int records = 1;
    int kind = pick(20);
    if (kind < 7) {
      int recipients = 1 + pick(4);
      text += "routing\nh " + std::to_string(t) + "\ntype 1\npriority " + std::to_string(pick(3)) +
              "\noriginator u" + n + "/sales\nua-message-id M" + n + "\n";
      for (int j = 0; j < recipients; ++j) {
        text += std::string("recipient-") + kCategories[pick(3)] + " r" + n + "x" +
                std::to_string(j) + "/ou\nack-req " + std::to_string(pick(2)) + "\nqueue " +
                (pick(2) ? "LOCAL" : "EKX400-out") + "\n";
      }
      text += "subject s " + n + "\nmessage-size " + std::to_string(pick(99999)) + "\n\n";
      records += recipients;
    } else if (kind < 12) {
      int recipients = 1 + pick(3);
      text += "delivery\nh " + std::to_string(t) + "\noriginator o" + n + "\nua-message-id D" + n +
              "\n";
      for (int j = 0; j < recipients; ++j) {
        text += "recipient-to a" + n + "x" + std::to_string(j) + "\n";
        if (pick(3) == 0) text += "non-delivery-reason " + std::to_string(1 + pick(9)) + "\n";
      }
      text += "delivered-count " + std::to_string(recipients) + "\n\n";
      records += recipients;
    } else if (kind < 14) {
      text += "user-signon\nh " + std::to_string(t) + "\nuser " + n +
              " Main Mail jsmith smithj\nsignon-status 1\nclient-type 4\n\n";
    } else if (kind < 16) {
      text += "user-signoff\nh " + std::to_string(t) + "\nuser " + n +
              " Main Mail\nsignoff-status 2\nduration 30\n\n";
    } else if (kind < 18) {
      records = 1 + pick(3);
      text += "ekscan\nh " + std::to_string(t) + "\n";
      for (int j = 0; j < records; ++j) {
        text += "user u" + n + "n" + std::to_string(j) + "\nuser-messages " +
                std::to_string(pick(50)) + "\ntray 1 inbox " + std::to_string(pick(9)) + " 400\n";
      }
      text += "\n";
    } else if (kind < 19) {
      text += "subsystem-start\nh " + std::to_string(t) + "\nsubsystem 3\nuser op" + n + "\n\n";
    } else {
      text += "subsystem-stop\nh " + std::to_string(t) + "\nsubsystem 4\nduration 9\n\n";
    }
    sections.push_back({t, text, records});
  }
  return sections;
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

std::vector<std::string> columns(const std::string& line) {
  std::vector<std::string> cols;
  for (size_t at = 0;;) {
    size_t comma = line.find(',', at);
    cols.push_back(line.substr(at, comma - at));
    if (comma == std::string::npos) return cols;
    at = comma + 1;
  }
}

long event_time(const std::string& record) {
  return std::stol(columns(record)[7]);
}

std::string record_date(const std::string& record) {
  auto cols = columns(record);
  return cols[1] + "," + cols[2] + "," + cols[3];
}

// Empty when `line` is a complete record of a known type: the right number of columns, and a
// prefix whose date and time are the UTC breakdown of its event time (zero for a header).
std::string malformed(const std::string& line) {
  static const std::map<std::string, size_t> kColumns = {
      {"101", 26}, {"102", 23}, {"103", 23}, {"104", 23}, {"105", 23},
      {"106", 23}, {"108", 23}, {"503", 18}, {"504", 12}, {"999", 23}};
  auto cols = columns(line);
  auto known = kColumns.find(cols[0]);
  if (known == kColumns.end()) return "unknown type: " + line;
  if (cols.size() != known->second) return "wrong column count: " + line;
  for (size_t i = 1; i < 8; ++i) {
    size_t digits = cols[i].rfind('-', 0) == 0 ? 1 : 0;
    if (cols[i].size() == digits ||
        cols[i].find_first_not_of("0123456789", digits) != std::string::npos) {
      return "bad prefix: " + line;
    }
  }
  std::string expected;
  if (cols[0] == "999") {
    expected = cols[1] + "," + cols[2] + "," + cols[3] + ",0,0,0,0";
  } else {
    time_t t = std::stol(cols[7]);
    struct tm utc {};
    ::gmtime_r(&t, &utc);
    expected = std::to_string(utc.tm_year) + "," + std::to_string(utc.tm_mon + 1) + "," +
               std::to_string(utc.tm_mday) + "," + std::to_string(utc.tm_hour) + "," +
               std::to_string(utc.tm_min) + "," + std::to_string(utc.tm_sec) + "," + cols[7];
  }
  std::string prefix;
  for (size_t i = 1; i < 8; ++i) prefix += cols[i] + (i < 7 ? "," : "");
  return prefix == expected ? "" : "prefix does not match the event time: " + line;
}

// The generations of `box`, oldest first, after checking that the working directory holds
// nothing but the audit file, the error file and generations, that every generation is whole
// (complete, well-formed lines, one header record first unless it is empty) and that each holds
// the records of one day. Returns the records, header records left out.
std::vector<std::string> checked_records(const Sandbox& box, size_t* generations) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(box.work())) {
    std::string name = entry.path().filename().string();
    if (name == "audit" || name == "cdf.ERR") continue;
    bool generation = name.size() == 7 && name.rfind("cdf.", 0) == 0 &&
                      name.find_first_not_of("0123456789", 4) == std::string::npos;
    EXPECT_TRUE(generation) << "unexpected file " << name;
    if (generation) names.push_back(name);
  }
  std::sort(names.rbegin(), names.rend());
  *generations = names.size();
  std::vector<std::string> records;
  for (const std::string& name : names) {
    std::string text = box.read(name);
    if (text.empty()) continue;
    EXPECT_EQ(text.back(), '\n') << name << " ends in a torn line";
    std::vector<std::string> lines = split_lines(text);
    EXPECT_EQ(columns(lines[0])[0], "999") << name << " does not start with a header record";
    std::set<std::string> dates;
    for (size_t i = 0; i < lines.size(); ++i) {
      EXPECT_EQ(malformed(lines[i]), "") << "in " << name << " line " << i + 1;
      if (i == 0) continue;
      EXPECT_NE(columns(lines[i])[0], "999") << name << " holds a second header record";
      dates.insert(record_date(lines[i]));
      records.push_back(lines[i]);
    }
    EXPECT_LE(dates.size(), 1u) << name << " holds records of several days";
  }
  return records;
}

// Whether the daemon's standard error ends with its idle line: it has converted all there was.
bool idle(const Daemon& daemon) {
  std::string err = daemon.err();
  return err.size() >= 11 && err.compare(err.size() - 11, 11, "waiting...\n") == 0;
}

// The event time of the last record in `text`, counting complete lines only.
std::optional<long> last_record_time(const std::string& text) {
  std::vector<std::string> lines = split_lines(text.substr(0, text.rfind('\n') + 1));
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    if (malformed(*line).empty() && columns(*line)[0] != "999") return event_time(*line);
  }
  return std::nullopt;
}

// The seconds a restart may convert again after a kill: that of the newest record of the lowest
// generation that holds one, and, when the kill cut a rotation short, that of the newest record
// in the rotation's files, which the restart may finish.
std::set<long> restart_seconds(const Sandbox& box) {
  std::set<long> seconds;
  for (int generation = 0; generation < 100; ++generation) {
    char name[16];
    std::snprintf(name, sizeof name, "cdf.%03d", generation);
    if (auto time = last_record_time(box.read(name))) {
      seconds.insert(*time);
      break;
    }
  }
  for (const auto& [name, text] : box.files(".cdf-rotation")) {
    if (auto time = last_record_time(text)) seconds.insert(*time);
  }
  return seconds;
}

// The bytes in all generations together (files may come and go while a rotation runs).
uintmax_t output_size(const Sandbox& box) {
  uintmax_t total = 0;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(box.work(), error)) {
    if (entry.path().filename().string().rfind("cdf.0", 0) != 0) continue;
    uintmax_t size = fs::file_size(entry.path(), error);
    if (!error) total += size;
  }
  return total;
}

TEST(DaemonCrash, RandomKillsLoseNoRecordAndTearNone) {
  const std::vector<Section> sections = generate_audit();
  std::string audit;
  size_t expected_records = 0;
  std::vector<size_t> first_of_day;  // sections whose day differs from the one before
  for (size_t i = 0; i < sections.size(); ++i) {
    audit += sections[i].text;
    expected_records += static_cast<size_t>(sections[i].records);
    if (i > 0 && sections[i].time / 86400 != sections[i - 1].time / 86400) {
      first_of_day.push_back(i);
    }
  }
  ASSERT_EQ(first_of_day.size(), 3u);

  // The uninterrupted run: one generation per day, after the empty one the start rotated away.
  Sandbox reference_box;
  reference_box.write("audit", audit);
  auto started = std::chrono::steady_clock::now();
  Daemon reference(reference_box, kArgs);
  ASSERT_TRUE(eventually([&] { return idle(reference); }, 60));
  const auto full_run = std::chrono::steady_clock::now() - started;
  EXPECT_EQ(reference.stop(), 0);
  EXPECT_EQ(reference_box.read("cdf.ERR"), "");
  size_t generations = 0;
  const std::vector<std::string> expected = checked_records(reference_box, &generations);
  ASSERT_EQ(expected.size(), expected_records);
  EXPECT_EQ(generations, first_of_day.size() + 2);
  // Each section's records, by its second.
  std::map<long, std::vector<std::string>> by_second;
  for (const std::string& record : expected) by_second[event_time(record)].push_back(record);
  ASSERT_EQ(by_second.size(), sections.size());

  Sandbox box;
  std::set<long> checkpoints;  // the seconds the restarts may convert again
  std::set<long> day_starts;
  for (size_t i : first_of_day) day_starts.insert(sections[i].time);
  // Notes what the next restart may convert again; true when that is the first section of a day,
  // which then starts a generation once more.
  auto note_checkpoint = [&] {
    bool day_start = false;
    for (long second : restart_seconds(box)) {
      checkpoints.insert(second);
      day_start = day_start || day_starts.count(second) > 0;
    }
    return day_start;
  };
  const std::string header = header_record();
  auto records_of = [&](size_t section) {
    std::string text;
    for (const std::string& r : by_second[sections[section].time]) text += r + "\n";
    return text;
  };

  // The bytes of output that the runs below write, on average, before they are killed.
  constexpr int kKills = 40;
  const uintmax_t step = [&] {
    uintmax_t total = 0;
    for (const auto& [name, text] : reference_box.files()) total += text.size();
    return total / kKills;
  }();
  // Polls closely: a run writes a step of output in about a millisecond.
  auto wait_for_output = [&](uintmax_t size, std::chrono::steady_clock::duration limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (output_size(box) < size) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
  };

  // Killed while idle after the first section of the second day: the restart skips the day
  // before, whose date makes that section start a new generation once more.
  const size_t lone = first_of_day[0];
  box.write("audit", audit.substr(0, audit.find(sections[lone + 1].text)));
  std::string first_day;
  for (size_t i = 0; i < lone; ++i) first_day += records_of(i);
  {
    Daemon first(box, kArgs);
    ASSERT_TRUE(eventually([&] { return idle(first); }, 60));
    note_checkpoint();
    first.signal(SIGKILL);
    ASSERT_EQ(first.wait_exit(), 128 + SIGKILL);
  }
  Daemon second(box, kArgs);
  ASSERT_TRUE(eventually([&] { return idle(second); }, 60));
  EXPECT_EQ(box.files(), (std::map<std::string, std::string>{{"cdf.000", header + records_of(lone)},
                                                             {"cdf.001", header + records_of(lone)},
                                                             {"cdf.002", header + first_day},
                                                             {"cdf.003", ""},
                                                             {"cdf.ERR", ""}}));
  EXPECT_EQ(checkpoints, std::set<long>{sections[lone].time});
  // The same run goes on with the rest of the file, well past that record, before it is killed:
  // another restart on it as the newest record would start yet another generation.
  const uintmax_t size_then = output_size(box);
  box.append("audit", audit.substr(box.read("audit").size()));
  ASSERT_TRUE(wait_for_output(size_then + 2 * step, std::chrono::seconds(20)));
  second.signal(SIGKILL);
  ASSERT_EQ(second.wait_exit(), 128 + SIGKILL);
  bool rotates_again = note_checkpoint();

  // Runs killed at random moments: some at start-up, most once they have written a random amount
  // of output (a delay alone would mostly land after the end: one run converts the whole file in
  // a few tens of milliseconds). A run that starts a generation again is let go well past that
  // day's first section, so that each day adds at most one such generation: with the lone one above
  // that makes at most eight, and -g 7 then drops only the empty generation of the first start.
  std::mt19937 rng(20231114);
  int cut_while_converting = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    const uintmax_t before = output_size(box);
    Daemon daemon(box, kArgs);
    if (rotates_again) {
      wait_for_output(before + step + rng() % step, std::chrono::seconds(20));
    } else if (kill > 0 && rng() % 5 == 0) {
      // Before, while or just after it recovers, takes the checkpoint and skips to it.
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 4000));
    } else {
      wait_for_output(before + rng() % (2 * step), 2 * full_run);
    }
    daemon.signal(SIGKILL);
    ASSERT_EQ(daemon.wait_exit(), 128 + SIGKILL);
    rotates_again = note_checkpoint();
    const uintmax_t after = output_size(box);
    if (!idle(daemon) && after != before) ++cut_while_converting;
  }
  // The kills are meant to land in the middle of the work, not after it. How many do depends on
  // the machine's speed (the work left shrinks as the checkpoint moves on), so only a floor that
  // any machine reaches is asserted.
  RecordProperty("kills_while_converting", cut_while_converting);
  EXPECT_GE(cut_while_converting, 3);

  Daemon last(box, kArgs);
  ASSERT_TRUE(eventually([&] { return idle(last); }, 60));
  EXPECT_EQ(last.stop(), 0);
  EXPECT_EQ(last.out(), "");
  EXPECT_EQ(box.read("cdf.ERR"), "");

  const std::vector<std::string> got = checked_records(box, &generations);
  EXPECT_LE(generations, 7u);
  // The records, second by second: every second of the uninterrupted run, in order; a second
  // may hold its records more than once only when it was a restart's checkpoint, and then each
  // copy but the last may lack the records after a cut.
  size_t at = 0;
  std::set<long> repeated;
  for (const auto& [second, records] : by_second) {
    std::vector<std::string> block;
    while (at < got.size() && event_time(got[at]) == second) block.push_back(got[at++]);
    ASSERT_FALSE(block.empty()) << "second " << second << " is missing; found "
                                << (at < got.size() ? got[at] : "the end");
    ASSERT_EQ(block.front(), records.front()) << "second " << second;
    size_t in_copy = 0;
    for (const std::string& line : block) {
      if (line == records.front() && in_copy > 0) {
        repeated.insert(second);
        in_copy = 0;
      }
      ASSERT_LT(in_copy, records.size()) << "second " << second;
      ASSERT_EQ(line, records[in_copy]) << "second " << second;
      ++in_copy;
    }
    EXPECT_EQ(in_copy, records.size()) << "second " << second << " ends in a partial copy";
  }
  EXPECT_EQ(at, got.size());
  EXPECT_TRUE(repeated.count(sections[lone].time));
  for (long second : repeated) {
    EXPECT_TRUE(checkpoints.count(second)) << "second " << second << " repeated, no restart there";
  }
}

}  // namespace
}  // namespace daemon_test
