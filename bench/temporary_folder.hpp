// A folder of one measurement's own, which goes with it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace bench {

class TemporaryFolder {
  public:
    TemporaryFolder() {
        char path[] = "/tmp/zandor-bench-XXXXXX";
        path_ = mkdtemp(path);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string file(const char* name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

}  // namespace bench
