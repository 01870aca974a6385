// A folder of one measurement's own, which goes with it.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace bench {

class TemporaryFolder {
  public:
    explicit TemporaryFolder(const std::string& parent = "/tmp")
        : path_(parent + "/zandor-bench-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr)
            throw std::filesystem::filesystem_error("no folder for measuring", parent,
                                                    std::make_error_code(std::errc::io_error));
    }
    /// One whose files lie in memory, where the system has such.
    static TemporaryFolder inMemory() {
        return TemporaryFolder(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string file(const char* name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

}  // namespace bench
