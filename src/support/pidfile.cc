#include "support/pidfile.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace adcdf {

std::string util_BaseName(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string pid_file_path(const std::string& name) {
  const char* dir = std::getenv("RUNTIME_DIRECTORY");
  std::string directory = dir && *dir ? dir : "/tmp";
  return directory + "/" + name + ".pid";
}

void proc_RecordMyPid(const std::string& name, const std::string& base) {
  std::string path = pid_file_path(name);
  std::string prefix = base + ".";
  if (path.compare(0, prefix.size(), prefix) == 0) return;
  std::ofstream out(path, std::ios::trunc);
  if (out) out << ::getpid() << '\n';
}

void proc_RemoveMyPid(const std::string& name) {
  std::string path = pid_file_path(name);
  std::ifstream in(path);
  long pid = 0;
  if (in >> pid && pid == ::getpid()) std::remove(path.c_str());
}

}  // namespace adcdf
