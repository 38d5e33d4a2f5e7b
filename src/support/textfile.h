// Metrics in the Prometheus node exporter's textfile format, and the file that holds them.
//
// The node exporter reads every *.prom file of its textfile directory whenever it is scraped, so
// the file must never be seen half written: it is written whole into a temporary file in the same
// directory (".<name>.tmp", never a name of the daemon's base, which the node exporter ignores
// since it does not end in ".prom"), synced, and renamed over the old one.
//
// A crash before the rename leaves the old file and a stray temporary file, which the next write
// empties and reuses. A power cut may lose the latest rename (the directory is not synced: the
// figures are rewritten every few seconds, and a stale file only shows older figures), never
// leave a torn file. The file is 0644: it holds counts and times, no addresses, and the node
// exporter runs under an account of its own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace adcdf {

class Textfile {
 public:
  // Every sample carries the label `label`="`value`" (what tells the files of several daemons
  // apart in the node exporter, which refuses samples it was given twice).
  Textfile(std::string_view label, std::string_view value);
  // Begins a metric: its "# HELP" and "# TYPE" lines. `type` is "counter" or "gauge"; a counter's
  // name ends in "_total".
  void metric(std::string_view name, std::string_view type, std::string_view help);
  // A sample of the metric begun last, without a timestamp, with one more label when `label`
  // is not empty.
  void sample(int64_t number, std::string_view label = {}, std::string_view value = {});
  const std::string& text() const { return text_; }

 private:
  std::string text_;
  std::string name_;
  std::string common_;  // the common label, escaped
};

// Replaces the file `path` with `text` as described above. Throws AdcdfError when it cannot.
void write_textfile(const std::string& path, std::string_view text);

}  // namespace adcdf
