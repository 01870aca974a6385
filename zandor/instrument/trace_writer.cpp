#include "trace_writer.hpp"

#include <algorithm>
#include <array>

#include "trace_checksum.hpp"

namespace instrument::detail {
namespace {

template <class Record>
std::span<const std::byte> bytesOf(const Record& record) noexcept {
    return std::as_bytes(std::span(&record, 1));
}

constexpr std::array<std::byte, sizeof(Word)> zeros{};

/// A block of records is about as large, so that who reads needs as little memory as who writes.
constexpr std::size_t wordsOfBlock = std::size_t{256} * 1024;

}  // namespace

TraceWriter::TraceWriter(const std::filesystem::path& file) : sink_(file) {
    put(bytesOf(TraceFileHead()));
}

void TraceWriter::beginProcess(const TraceProcess& process) {
    endProcess();
    ++processes_;
    block(TraceBlock::process, bytesOf(process));
}

void TraceWriter::endProcess() {
    const std::vector<Word> outline = outline_.take();
    if (!outline.empty())
        block(TraceBlock::outline, std::as_bytes(std::span(outline)));
}

void TraceWriter::journal(std::span<const std::byte> entries) {
    if (!entries.empty())
        block(TraceBlock::journal, entries);
}

void TraceWriter::records(const TraceStretch& stretch, std::span<const Word> records,
                          std::uint64_t base) {
    // A skip and the start behind it are as many words as any two become, and a block has at most
    // one record beyond its bound.
    constexpr std::size_t mostForAWord = 3;
    const std::size_t most =
        std::min(mostForAWord * records.size(), wordsOfBlock + records.size()) + mostForAWord;
    if (adapted_.size() < most)
        adapted_.resize(most);
    RecordReader reader(records.data(), records.data() + records.size(),
                        {stretch.source, stretch.nextSerial, nullptr, base});
    for (TraceStretch part = stretch;;) {
        const std::span<const Word> adapted = adapt(reader);
        if (adapted.empty())
            return;
        outline_.add(part, adapted);
        block(TraceBlock::records, bytesOf(part), std::as_bytes(adapted));
        part = {stretch.track, reader.state().source, reader.state().nextSerial};
    }
}

/// The next block of records: a file has none of one word, and no addresses.
std::span<const Word> TraceWriter::adapt(RecordReader& reader) {
    Word* out = adapted_.data();
    const Word* const enough = out + wordsOfBlock;
    const Word* begin = reader.position();
    for (Record record; out < enough && reader.next(record); begin = reader.position()) {
        if (record.kind == RecordKind::source || record.kind == RecordKind::skip) {
            *out++ = static_cast<Word>(RecordKind::source);
            *out++ = reader.state().source;
            *out++ = reader.state().nextSerial;
            *out++ = 0;
        } else if (!ShortRecord::is(*begin)) {
            out = std::copy(begin, reader.position(), out);
        } else if (record.kind != RecordKind::base) {
            *out++ = ShortRecord(*begin).head().word();
            *out++ = record.time;
        }
    }
    return {adapted_.data(), out};
}

void TraceWriter::lost(std::span<const LostRange> ranges) {
    if (!ranges.empty())
        block(TraceBlock::lost, std::as_bytes(ranges));
}

void TraceWriter::lines(Bytes stream) {
    if (!stream.empty())
        block(TraceBlock::lines, stream);
}

void TraceWriter::block(TraceBlock kind, Bytes first, Bytes second) {
    TraceBlockHead head;
    head.kind = kind;
    head.process = kind == TraceBlock::index ? 0 : processes_ - 1;
    head.bytes = first.size() + second.size();
    TraceChecksum checksum(head);
    checksum.add(first);
    checksum.add(second);
    head.checksum = checksum.value();
    index_.push_back({offset_, head.bytes, kind, head.process});
    put(bytesOf(head));
    put(first);
    put(second);
    if (const std::size_t over = offset_ % sizeof(Word); over > 0)
        put(std::span(zeros).first(sizeof(Word) - over));
}

void TraceWriter::put(Bytes bytes) {
    sink_.write({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    offset_ += bytes.size();
}

void TraceWriter::commit() {
    endProcess();
    TraceFileTail tail;
    tail.index = offset_;
    const std::vector<TraceIndexEntry> index = index_;
    block(TraceBlock::index, std::as_bytes(std::span(index)));
    put(bytesOf(tail));
    sink_.commit();
}

}  // namespace instrument::detail
