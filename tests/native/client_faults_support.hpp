// Processes that die and stop at labelled instants: programs of copies of the two sides whose test
// points act, which each program defines.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "client_support.hpp"
#include "process_support.hpp"
#include "zandor/client/test_point.h"

namespace client_tests {

using process_tests::Child;
using process_tests::Shared;

/// What happens to this process at which label.
struct Fault {
    const char* label = "";
    int signal = 0;
    int passes = 0;  ///< how often the label is passed before
};
inline Fault fault;

inline void meet(const char* label) {
    if (std::strcmp(label, fault.label) == 0 && fault.passes-- == 0)
        kill(getpid(), fault.signal);
}

class FaultyClients : public ClientTest {
  protected:
    ~FaultyClients() override { fault = {}; }

    /// Collects until the host let go of the client, and gives its account.
    instrument::ExternalAccount accountAtEnd(const std::string& name) {
        aggregator_.stop();
        return accountOf(name);
    }
};

}  // namespace client_tests
