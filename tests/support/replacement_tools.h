// Shell scripts that stand in for the system's tools: first on the search path for the duration of a test.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "recording_base.h"

namespace qmxtest {

class ReplacementTools {
 public:
  ReplacementTools() : old_path_(std::getenv("PATH")) {
    setenv("PATH", (dir_.path() + ":" + old_path_).c_str(), 1);
  }
  ~ReplacementTools() { setenv("PATH", old_path_.c_str(), 1); }
  ReplacementTools(const ReplacementTools&) = delete;
  ReplacementTools& operator=(const ReplacementTools&) = delete;

  // A tool and what it does; returns its path.
  std::string tool(const std::string& name, const std::string& script) const {
    const std::string path = dir_.write(name, "#!/bin/sh\n" + script + "\n");
    chmod(path.c_str(), 0755);
    return path;
  }
  const TempDir& dir() const { return dir_; }

 private:
  TempDir dir_;
  std::string old_path_;
};

}  // namespace qmxtest
