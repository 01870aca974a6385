#include "zandor/instrument/line_samples.hpp"

#include <array>
#include <cstring>
#include <map>
#include <string_view>

#include "saturating.hpp"

namespace instrument {
namespace {

// An entry is a head, its kind in 8 bits and above them the bytes that follow, those bytes, and
// zeros up to a multiple of eight.
enum Kind : std::uint64_t { beginEntry = 1, threadEntry = 2, lineEntry = 3, periodEntry = 4 };

using detail::saturatingAdd;
using Word = std::uint64_t;
constexpr std::size_t periodWords = 4;
constexpr std::size_t timeWords = 4;

/// A thread and a line in one word; the line is one more, so that 0 stands for all.
Word keyOf(const LineTime& time) noexcept {
    const Word line = time.line == LineTime::allLines ? 0 : Word{time.line} + 1;
    return Word{time.thread} << 32 | line;
}

std::string_view textOf(std::span<const std::byte> bytes) noexcept {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string_view takeText(std::string_view& rest) noexcept {
    const std::string_view text = rest.substr(0, rest.find('\0'));
    rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    return text;
}

/// The numbers of a stream's threads and lines become those of the samples.
class Reader {
  public:
    Reader(const LineOrigin& origin, LineSamples& samples) : origin_(origin), samples_(samples) {
        for (std::uint32_t i = 0; i < samples.lines.size(); ++i)
            known_.emplace(samples.lines[i], i);
    }

    void read(std::span<const std::byte> untrusted) {
        while (untrusted.size() >= sizeof(Word)) {
            const Word head = wordAt(untrusted, 0);
            untrusted = untrusted.subspan(sizeof head);
            const Word bytes = head >> 8;
            if (bytes > untrusted.size())
                return;
            add(static_cast<Kind>(head & 255), untrusted.first(bytes));
            const std::size_t filled = (bytes + sizeof(Word) - 1) / sizeof(Word) * sizeof(Word);
            untrusted = untrusted.subspan(std::min(filled, untrusted.size()));
        }
    }

  private:
    static Word wordAt(std::span<const std::byte> bytes, std::size_t index) noexcept {
        Word word;
        std::memcpy(&word, bytes.data() + index * sizeof word, sizeof word);
        return word;
    }
    static std::int64_t numberAt(std::span<const std::byte> bytes, std::size_t index) noexcept {
        return static_cast<std::int64_t>(wordAt(bytes, index));
    }

    void add(Kind kind, std::span<const std::byte> payload) {
        if (payload.size() < sizeof(Word))
            return;
        switch (kind) {
            case beginEntry:
                threads_.clear();
                return lines_.clear();
            case threadEntry:
                return addThread(wordAt(payload, 0), textOf(payload.subspan(sizeof(Word))));
            case lineEntry:
                return addLine(wordAt(payload, 0), textOf(payload.subspan(sizeof(Word))));
            case periodEntry:
                return addPeriod(payload);
        }
    }

    void addThread(Word id, std::string_view name) {
        threads_.push_back(static_cast<std::uint32_t>(samples_.threads.size()));
        samples_.threads.push_back({origin_.process, id, std::string(name)});
    }

    void addLine(Word number, std::string_view texts) {
        SourceLine line;
        line.number = static_cast<std::uint32_t>(number);
        line.file = takeText(texts);
        line.function = takeText(texts);
        line.text = takeText(texts);
        const auto next = static_cast<std::uint32_t>(samples_.lines.size());
        const auto [known, isNew] = known_.try_emplace(line, next);
        if (isNew)
            samples_.lines.push_back(std::move(line));
        lines_.push_back(known->second);
    }

    void addPeriod(std::span<const std::byte> payload) {
        if (payload.size() < periodWords * sizeof(Word))
            return;
        const LinePeriod period{saturatingAdd(numberAt(payload, 0), origin_.timeShift),
                                saturatingAdd(numberAt(payload, 1), origin_.timeShift),
                                wordAt(payload, 2), wordAt(payload, 3)};
        if (period.end < period.begin)
            return;
        const auto number = static_cast<std::uint32_t>(samples_.periods.size());
        samples_.periods.push_back(period);
        const std::size_t words = payload.size() / sizeof(Word);
        for (std::size_t at = periodWords; at + timeWords <= words; at += timeWords)
            addTime(payload.subspan(at * sizeof(Word)), number);
    }

    void addTime(std::span<const std::byte> words, std::uint32_t period) {
        const Word thread = wordAt(words, 0) >> 32;
        const Word line = wordAt(words, 0) & 0xffffffff;
        LineSamples::Time time;
        time.self = numberAt(words, 1);
        time.cpu = numberAt(words, 2);
        time.held = numberAt(words, 3);
        const bool isTime = time.self >= 0 && time.cpu >= 0 && time.held >= 0;
        if (!isTime || thread >= threads_.size() || line > lines_.size())
            return;
        time.thread = threads_[thread];
        time.line = line == 0 ? LineTime::allLines : lines_[line - 1];
        time.period = period;
        samples_.times.push_back(time);
    }

    LineOrigin origin_;
    LineSamples& samples_;
    std::map<SourceLine, std::uint32_t> known_;
    std::vector<std::uint32_t> threads_;
    std::vector<std::uint32_t> lines_;
};

}  // namespace

LineStream::LineStream() {
    const Word version = 1;
    begin(beginEntry, sizeof version);
    put(&version, sizeof version);
}

std::uint32_t LineStream::addThread(std::uint64_t threadId, std::string_view name) {
    begin(threadEntry, sizeof threadId + name.size());
    put(&threadId, sizeof threadId);
    put(name.data(), name.size());
    fill();
    return threads_++;
}

std::uint32_t LineStream::addLine(const SourceLine& line) {
    const Word number = line.number;
    const std::array texts{&line.file, &line.function, &line.text};
    std::size_t bytes = sizeof number;
    for (const std::string* text : texts)
        bytes += text->size() + 1;
    begin(lineEntry, bytes);
    put(&number, sizeof number);
    for (const std::string* text : texts)
        put(text->c_str(), text->size() + 1);
    fill();
    return lines_++;
}

void LineStream::addPeriod(const LinePeriod& period, std::span<const LineTime> times) {
    begin(periodEntry, (periodWords + timeWords * times.size()) * sizeof(Word));
    put(&period, sizeof period);
    static_assert(sizeof period == periodWords * sizeof(Word));
    for (const LineTime& time : times) {
        const std::array words{keyOf(time), static_cast<Word>(time.self),
                               static_cast<Word>(time.cpu), static_cast<Word>(time.held)};
        put(words.data(), sizeof words);
    }
}

void LineStream::begin(std::uint64_t kind, std::size_t bytes) {
    const Word head = kind | Word{bytes} << 8;
    put(&head, sizeof head);
}

void LineStream::put(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::byte*>(data);
    bytes_.insert(bytes_.end(), bytes, bytes + size);
}

void LineStream::fill() {
    bytes_.resize((bytes_.size() + sizeof(Word) - 1) / sizeof(Word) * sizeof(Word));
}

void addLineSamples(std::span<const std::byte> stream, const LineOrigin& origin,
                    LineSamples& samples) {
    Reader(origin, samples).read(stream);
}

}  // namespace instrument
