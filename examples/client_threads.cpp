// A worker in C++ whose events another process records: two threads sum the two halves of a series.
//
//   client_threads NAME
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "zandor/client/client.h"

namespace {

/// An event that lasts as long as the scope.
class Scope {
  public:
    Scope(zandor_client* client, const char* name)
        : client_(client), event_(zandor_client_start(client, name, nullptr, nullptr, 0)) {}
    ~Scope() { zandor_client_stop(client_, event_); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

  private:
    zandor_client* client_;
    zandor_event event_;
};

constexpr int threads = 2;
constexpr int steps = 80;
constexpr long terms = 400'000;

double half(zandor_client* client, int thread) {
    zandor_client_name_thread(("half " + std::to_string(thread)).c_str());
    double sum = 0;
    for (long step = 0; step < steps; ++step) {
        const Scope scope(client, "half sum");
        for (long i = step * terms; i < (step + 1) * terms; ++i)
            sum += (thread == 0 ? 4.0 : -4.0) / (4.0 * static_cast<double>(i) + 2.0 * thread + 1.0);
    }
    return sum;
}

}  // namespace

int main(int count, char** arguments) {
    zandor_client* const client = zandor_client_open(count > 1 ? arguments[1] : "cpp-worker");
    std::atomic<double> sum{0};
    {
        std::vector<std::jthread> pool;
        for (int thread = 0; thread < threads; ++thread)
            pool.emplace_back([client, thread, &sum] { sum += half(client, thread); });
    }
    zandor_client_close(client);
    std::printf("C++: %.6f\n", sum.load());
}
