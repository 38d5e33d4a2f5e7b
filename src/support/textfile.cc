#include "support/textfile.h"

#include <sys/stat.h>

#include "support/error.h"
#include "support/files.h"

namespace adcdf {

namespace {

// A label: name="value", with backslash, double quote and newline escaped.
std::string label_text(std::string_view label, std::string_view value) {
  std::string text(label);
  text.append("=\"");
  for (char c : value) {
    if (c == '\\' || c == '"') text.push_back('\\');
    if (c == '\n') {
      text.append("\\n");
    } else {
      text.push_back(c);
    }
  }
  return text.append("\"");
}

}  // namespace

Textfile::Textfile(std::string_view label, std::string_view value)
    : common_(label_text(label, value)) {}

void Textfile::metric(std::string_view name, std::string_view type, std::string_view help) {
  name_ = name;
  text_.append("# HELP ").append(name).append(" ").append(help).append("\n");
  text_.append("# TYPE ").append(name).append(" ").append(type).append("\n");
}

void Textfile::sample(int64_t number, std::string_view label, std::string_view value) {
  // The common label first: "base" sorts before the others, as the node exporter shows them.
  text_.append(name_).append("{").append(common_);
  if (!label.empty()) text_.append(",").append(label_text(label, value));
  text_.append("} ").append(std::to_string(number)).append("\n");
}

void write_textfile(const std::string& path, std::string_view text) {
  const size_t slash = path.find_last_of('/');
  const std::string temporary = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".tmp";
  // Opened for reading and writing, which neither follows a link nor blocks at a FIFO, and
  // emptied only once it is known to be a file of its own.
  File out = File::read_write_create(temporary);
  struct stat st {};
  if (::fstat(out.fd(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1) {
    throw AdcdfError(kGroupFile, kReasonOpen, "not a file of its own: " + temporary);
  }
  if (::fchmod(out.fd(), 0644) != 0) {
    throw AdcdfError(kGroupFile, kReasonOpen, "cannot set the mode of " + temporary);
  }
  out.truncate(0);
  out.write_at(text, 0);
  out.sync();
  out.close();
  rename_file(temporary, path);
}

}  // namespace adcdf
