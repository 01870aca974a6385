// What a fuzzer begins from: run as PROGRAM --seeds FOLDER it writes a few inputs there, and ends.
// Run as PROGRAM --check-model it tells by its exit status whether what it finds faults by is able
// to.
//
// For the one file of a fuzzer, which says what they are by defining writeSeeds, and checkModel
// where there is a model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace fuzzing {

/// The fuzzer's own.
void writeSeeds(const std::filesystem::path& folder);
/// Gives the exit status. Null where the fuzzer has none.
[[gnu::weak]] int checkModel();

inline void writeSeed(const std::filesystem::path& folder, std::size_t number,
                      std::string_view bytes) {
    std::ofstream(folder / ("seed-" + std::to_string(number)), std::ios::binary) << bytes;
}

/// Bytes that mean nothing; the same ones every time.
class Noise {
  public:
    std::string next(std::size_t size) {
        std::string bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>((state_ = state_ * 1'664'525 + 1'013'904'223) >> 24);
        return bytes;
    }

  private:
    std::uint32_t state_ = 1;
};

/// Files of so many bytes each.
inline void writeNoise(const std::filesystem::path& folder, std::size_t files, std::size_t size) {
    Noise noise;
    for (std::size_t number = 0; number < files; ++number)
        writeSeed(folder, number, noise.next(size));
}

}  // namespace fuzzing

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    if (*argc == 3 && std::strcmp((*argv)[1], "--seeds") == 0) {
        fuzzing::writeSeeds((*argv)[2]);
        std::exit(0);
    }
    if (*argc == 2 && std::strcmp((*argv)[1], "--check-model") == 0)
        std::exit(fuzzing::checkModel ? fuzzing::checkModel() : 0);
    return 0;
}
