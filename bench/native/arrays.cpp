// Records of seven fields as elements of a struct array, beside the blocks that they need.
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "measuring.hpp"
#include "zandor/runtime/array.hpp"

namespace {

namespace hx = matrix::hx;

constexpr std::size_t records = 100'000;
constexpr const char* fields[] = {"name",      "context",  "sourceId",  "serialId",
                                  "startTime", "duration", "sourceName"};

/// A block of 48 bytes for each field, with one copy into it.
void floorStructRecord(benchmark::State& state) {
    const char content[48] = "as much as a number or a short text takes";
    std::vector<void*> blocks(records * std::size(fields));
    while (state.KeepRunningBatch(records)) {
        for (void*& block : blocks) {
            block = std::malloc(sizeof content);
            std::memcpy(block, content, sizeof content);
        }
        state.PauseTiming();
        for (void* block : blocks)
            std::free(block);
        state.ResumeTiming();
    }
}
BENCHMARK(floorStructRecord);

matrix::Array textOrNumber(std::size_t record, std::size_t field) {
    if (field < 2 || field == 6)
        return matrix::create("solve", 5);
    return matrix::Array(hx::hxCreateDoubleScalar(static_cast<double>(record)));
}

matrix::Array structArray() {
    matrix::Array array = matrix::detail::do_create_struct(1, records, fields);
    const char* names[std::size(fields)];
    for (std::size_t field = 0; field < std::size(fields); ++field)
        names[field] = hx::hxGetFieldName(array.get(), field);
    for (std::size_t record = 0; record < records; ++record)
        for (std::size_t field = 0; field < std::size(fields); ++field)
            hx::hxSetField(array.get(), record, names[field],
                           matrix::to_zandor(textOrNumber(record, field)));
    return array;
}

void structRecord(benchmark::State& state) {
    while (state.KeepRunningBatch(records)) {
        matrix::Array array = structArray();
        state.PauseTiming();
        array.reset();
        state.ResumeTiming();
    }
}
BENCHMARK(structRecord);

void structRecordDestroyed(benchmark::State& state) {
    while (state.KeepRunningBatch(records)) {
        state.PauseTiming();
        matrix::Array array = structArray();
        state.ResumeTiming();
        array.reset();
    }
}
BENCHMARK(structRecordDestroyed);

}  // namespace
