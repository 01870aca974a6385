// What a fuzzer begins from: run as PROGRAM --seeds FOLDER it writes a few inputs there, and ends.
//
// For the one file of a fuzzer, which says what they are by defining writeSeeds.
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

inline void writeSeed(const std::filesystem::path& folder, std::size_t number,
                      std::string_view bytes) {
    std::ofstream(folder / ("seed-" + std::to_string(number)), std::ios::binary) << bytes;
}

/// Files of so many bytes each that mean nothing; the same ones every time.
inline void writeNoise(const std::filesystem::path& folder, std::size_t files, std::size_t size) {
    std::uint32_t state = 1;
    for (std::size_t number = 0; number < files; ++number) {
        std::string bytes(size, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>((state = state * 1'664'525 + 1'013'904'223) >> 24);
        writeSeed(folder, number, bytes);
    }
}

}  // namespace fuzzing

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    if (*argc == 3 && std::strcmp((*argv)[1], "--seeds") == 0) {
        fuzzing::writeSeeds((*argv)[2]);
        std::exit(0);
    }
    return 0;
}
