// A line of the logger, beside one write of as many bytes; both to /dev/null.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "measuring.hpp"
#include "zandor/runtime/zandor.hpp"

namespace {

/// What goes to the console goes nowhere.
class SilentConsole {
  public:
    SilentConsole() : before_(dup(1)), nowhere_(open("/dev/null", O_WRONLY)) { dup2(nowhere_, 1); }
    ~SilentConsole() {
        dup2(before_, 1);
        close(before_);
        close(nowhere_);
    }
    SilentConsole(const SilentConsole&) = delete;
    SilentConsole& operator=(const SilentConsole&) = delete;

  private:
    int before_;
    int nowhere_;
};

void floorOneWrite(benchmark::State& state) {
    const SilentConsole console;
    const std::string line(128, 'x');
    for (auto _ : state)
        if (write(1, line.data(), line.size()) < 0)
            state.SkipWithError("nothing was written");
}
BENCHMARK(floorOneWrite);

void loggerLine(benchmark::State& state) {
    const SilentConsole console;
    static const zandor::Plugin plugin = zandor::Plugin::load(VANTRACE_PLUGIN_PATH);
    const instrument::Instrument solve("bench.logger");
    instrument::controls.enable("bench.logger");
    zandor::resolve("performance.instrument.logger.start")();
    for (auto _ : state)
        solve.instant();
    zandor::resolve("performance.instrument.logger.stop")();
    instrument::controls.disable("bench.logger");
}
BENCHMARK(loggerLine);

}  // namespace
