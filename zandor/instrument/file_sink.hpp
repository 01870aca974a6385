// A file that is whole or not there.
#pragma once

#include <filesystem>
#include <string_view>

#include "zandor/instrument/exports.hpp"

namespace instrument::detail {

/// Writes to a file beside the target, which takes the target's place at commit; until then, and
/// after an error, the target is as it was. Where the file system can, that file has no name while
/// it is written, so that nothing of it stays however the process ends. What is there already and
/// is no regular file (a device, a pipe) is written to itself; a symbolic link stays, and the file
/// that it names is replaced. Errors are std::system_error with the target's path.
class ZANDOR_INSTRUMENT_API FileSink : public TextSink {
  public:
    explicit FileSink(const std::filesystem::path& target);
    ~FileSink() override;
    FileSink(const FileSink&) = delete;
    FileSink& operator=(const FileSink&) = delete;

    void write(std::string_view text) override;
    /// After the last text. What is still to be done is the name.
    void close();
    /// Closes it where that was not done.
    void commit();

  private:
    void openItself();
    void openBeside();
    bool openNameless();
    void giveName();
    [[noreturn]] void fail(int error) const;

    const std::filesystem::path asked_;
    std::filesystem::path target_;
    std::filesystem::path temporary_;  // empty while there is none
    int descriptor_ = -1;
    bool isNameless_ = false;
};

}  // namespace instrument::detail
