#include "trace_reader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <system_error>

#include "read_at.hpp"
#include "trace_checksum.hpp"

namespace instrument::detail {
namespace {

constexpr std::uint64_t wordBytes = sizeof(std::uint64_t);

int openToRead(const std::filesystem::path& file) {
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), "cannot read " + file.string());
    return descriptor;
}

}  // namespace

TraceReader::TraceReader(const std::filesystem::path& file) : descriptor_(openToRead(file)) {
    struct stat status {};
    TraceFileHead head;
    const bool isFile = fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
    fileBytes_ = isFile ? static_cast<std::uint64_t>(status.st_size) : 0;
    if (!readAt(0, &head, sizeof head) || head.magic != TraceFileHead::expectedMagic ||
        head.version != TraceFileHead::currentVersion) {
        close(descriptor_);
        throw std::runtime_error(file.string() + " is no trace file of a known version");
    }
    hasIndex_ = readIndex();
    if (!hasIndex_)
        findBlocks();
}

TraceReader::~TraceReader() {
    close(descriptor_);
}

bool TraceReader::readAt(std::uint64_t offset, void* out, std::size_t bytes) const noexcept {
    return offset <= fileBytes_ && bytes <= fileBytes_ - offset &&
           detail::readAt(descriptor_, offset, out, bytes);
}

/// Whether a block's head is there, and its payload inside the file.
bool TraceReader::readHead(std::uint64_t offset, TraceBlockHead& head) const noexcept {
    return readAt(offset, &head, sizeof head) && head.magic == TraceBlockHead::expectedMagic &&
           head.bytes <= fileBytes_ - offset - sizeof head;
}

bool TraceReader::readIndex() {
    TraceFileTail tail;
    TraceBlockHead head;
    if (fileBytes_ < sizeof tail || !readAt(fileBytes_ - sizeof tail, &tail, sizeof tail) ||
        tail.magic != TraceFileTail::expectedMagic || !readHead(tail.index, head) ||
        head.kind != TraceBlock::index)
        return false;
    const auto index = payload({tail.index, head.bytes, head.kind, head.process});
    if (!index)
        return false;
    constexpr std::size_t words = sizeof(TraceIndexEntry) / wordBytes;
    for (std::span<const std::uint64_t> left = *index; left.size() >= words;
         left = left.subspan(words))
        blocks_.push_back(recordIn<TraceIndexEntry>(left));
    return true;
}

void TraceReader::findBlocks() {
    TraceBlockHead head;
    for (std::uint64_t offset = sizeof(TraceFileHead); readHead(offset, head);) {
        if (head.kind != TraceBlock::index)
            blocks_.push_back({offset, head.bytes, head.kind, head.process});
        offset += sizeof head + (head.bytes + wordBytes - 1) / wordBytes * wordBytes;
    }
}

std::optional<std::vector<std::uint64_t>> TraceReader::payload(const TraceIndexEntry& entry) const {
    std::vector<std::uint64_t> words;
    return read(entry, words) ? std::optional(std::move(words)) : std::nullopt;
}

bool TraceReader::read(const TraceIndexEntry& entry, std::vector<std::uint64_t>& words) const {
    TraceBlockHead head;
    if (!readHead(entry.offset, head) || head.kind != entry.kind || head.bytes != entry.bytes ||
        head.process != entry.process)
        return false;
    words.resize(head.bytes / wordBytes + (head.bytes % wordBytes != 0));
    if (!words.empty())
        words.back() = 0;
    if (!readAt(entry.offset + sizeof head, words.data(), head.bytes))
        return false;
    TraceChecksum checksum(head);
    checksum.add(std::as_bytes(std::span(words)).first(head.bytes));
    return checksum.value() == head.checksum;
}

std::size_t TraceReader::beginning(const TraceIndexEntry& entry,
                                   std::span<std::uint64_t> words) const noexcept {
    const std::size_t count = std::min<std::uint64_t>(words.size(), entry.bytes / wordBytes);
    return readAt(entry.offset + sizeof(TraceBlockHead), words.data(), count * wordBytes) ? count
                                                                                          : 0;
}

std::optional<TraceStretch> TraceReader::stretch(const TraceIndexEntry& entry) const noexcept {
    TraceStretch stretch;
    if (entry.bytes < sizeof stretch ||
        !readAt(entry.offset + sizeof(TraceBlockHead), &stretch, sizeof stretch))
        return std::nullopt;
    return stretch;
}

}  // namespace instrument::detail
