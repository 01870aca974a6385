// Reads rings of any bytes, and delivers the events that they give to a recorder.
//
// The first half of the input is what the client wrote, the second what stands there when it is
// read the next time, as if it had been written over. Most inputs are given a header and stamps
// that are right, so that the fuzzer gets behind them.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>

#include "fuzz/seeds.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/instrument/listeners.hpp"
#include "zandor/instrument/recorder.hpp"
#include "zandor/performance/external_delivery.hpp"
#include "zandor/performance/external_ring.hpp"

namespace {

using namespace instrument::detail;

constexpr std::uint32_t namesBytes = 1 << 12;
constexpr std::uint32_t dataBytes = 1 << 12;
constexpr std::uint64_t ringBytes = wire::ringBytes(namesBytes, dataBytes);
constexpr std::uint32_t data = wire::dataOffset(namesBytes);

struct Image {
    char bytes[ringBytes] = {};
    wire::RingHeader& header() { return *reinterpret_cast<wire::RingHeader*>(bytes); }
};

void fitHeader(Image& image) {
    wire::RingHeader& header = image.header();
    header.magic = wire::magic;
    header.version = wire::version;
    header.clock &= 1;
    header.session = 1;
    header.ring = 1;
    header.thread = header.thread % 4 + 1;
    header.namesBytes = namesBytes;
    header.dataBytes = dataBytes;
    header.tail = header.tail % (2 * dataBytes) & ~std::uint64_t{7};
}

/// Goes from record to record by the lengths that are there.
void fitStamps(Image& image) {
    const std::uint64_t tail = image.header().tail;
    for (std::uint64_t position = 0; position < tail;) {
        std::uint32_t word[2];
        char* const place = image.bytes + data + position % dataBytes;
        std::memcpy(word, place, sizeof word);
        if (!(word[0] & wire::paddingBit))
            word[0] = std::clamp(word[0] % 256 & ~7u, 32u, 248u);
        word[1] = wire::stampOf(position);
        std::memcpy(place, word, sizeof word);
        position += std::max(word[0] & ~wire::paddingBit & ~7u, 8u);
    }
}

/// Lays the input over the parts of a ring: a byte for what is to fit, the header, a few names,
/// data.
void fill(Image& image, std::span<const std::uint8_t> input) {
    const auto take = [&](char* to, std::size_t most) {
        const std::size_t count = std::min(most, input.size());
        std::copy_n(input.begin(), count, to);
        input = input.subspan(count);
    };
    char fits = 0;
    take(&fits, 1);
    take(image.bytes, sizeof(wire::RingHeader));
    take(image.bytes + wire::namesOffset, 64);
    take(image.bytes + data, dataBytes);
    if (fits & 1)
        return;
    fitHeader(image);
    if (!(fits & 2))
        fitStamps(image);
}

/// One memory for all runs.
int ringFile() {
    static const int file = [] {
        const int made = memfd_create("ring", MFD_ALLOW_SEALING);
        if (made < 0 || ftruncate(made, ringBytes) != 0 ||
            fcntl(made, F_ADD_SEALS, F_SEAL_SHRINK) != 0)
            std::abort();
        return made;
    }();
    return file;
}

void put(const Image& image) {
    if (pwrite(ringFile(), image.bytes, sizeof image.bytes, 0) != sizeof image.bytes)
        std::abort();
}

class Host {
  public:
    Host() {
        instrument::controls.enableAll(true);
        instrument::listeners.add(recorder_);
    }
    void clear() { recorder_.clearAllEventData(); }

  private:
    instrument::InstrumentRecorder recorder_{{.maxBytes = 1 << 24}};
};

void drain(ExternalRing& ring, ExternalTimes& times, ExternalDelivery& delivery) {
    static ExternalRing::Buffer buffer;
    RingEvent event;
    for (int batch = 0; batch < 8 && ring.fetch(buffer); ++batch) {
        times.takeNow();
        while (ring.next(buffer, event))
            delivery.deliver(ring, times, event);
    }
    delivery.finishRound();
}

}  // namespace

void fuzzing::writeSeeds(const std::filesystem::path& folder) {
    std::size_t number = 0;
    for (const std::size_t size : {64, 1024, 4096})
        writeSeed(folder, number++, std::string(size, '\0'));
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static Host host;
    const std::span input(bytes, size);
    Image first;
    Image second;
    fill(first, input.first(size / 2));
    fill(second, input.subspan(size / 2));
    put(first);
    try {
        ExternalRing ring(FileDescriptor(dup(ringFile())), {1, 1, namesBytes, dataBytes});
        ExternalTimes times(ring.clock());
        ExternalDelivery delivery("fuzzed", 1);
        delivery.begin(ring);
        drain(ring, times, delivery);
        put(second);
        drain(ring, times, delivery);
        delivery.end(ring);
    } catch (const BrokenRules&) {
        // What most inputs come to.
    }
    host.clear();
    return 0;
}
