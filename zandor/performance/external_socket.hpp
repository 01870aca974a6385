// The socket that external clients find a host by.
#pragma once

#include <string>

#include "zandor/performance/file_descriptor.hpp"

namespace instrument::detail {

/// Listens in the user's runtime folder under a name of its own, and takes that name away in the
/// end. What hosts that died left there is removed first.
class ExternalSocket {
  public:
    /// Throws std::runtime_error where there is no folder that is the user's alone, and
    /// std::system_error.
    ExternalSocket();
    ~ExternalSocket();
    ExternalSocket(const ExternalSocket&) = delete;
    ExternalSocket& operator=(const ExternalSocket&) = delete;

    int get() const noexcept { return socket_.get(); }
    /// The next connection; empty where there is none now.
    FileDescriptor accept() const noexcept;

  private:
    FileDescriptor folder_;
    FileDescriptor socket_;
    std::string name_;
};

}  // namespace instrument::detail
