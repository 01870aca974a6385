// The least that a recording can do: an edge is sixteen bytes in a buffer of the thread.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <new>

#include "measuring.hpp"

namespace bench {

struct PrototypeEdge {
    std::uint64_t tick;
    std::uint64_t name;
};

/// Fresh pages, as the system gives them: huge ones where it has them to give.
class PrototypeBuffer {
  public:
    explicit PrototypeBuffer(std::size_t edges)
        : bytes_(edges * sizeof(PrototypeEdge) + hugePage),
          pages_(
              mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (pages_ == MAP_FAILED)
            throw std::bad_alloc();
        const auto address = reinterpret_cast<std::uintptr_t>(pages_);
        const std::size_t skip = (hugePage - address % hugePage) % hugePage;
        first_ = reinterpret_cast<PrototypeEdge*>(static_cast<char*>(pages_) + skip);
        end_ = first_ + edges;
        madvise(first_, edges * sizeof(PrototypeEdge), MADV_HUGEPAGE);
    }
    ~PrototypeBuffer() { munmap(pages_, bytes_); }
    PrototypeBuffer(const PrototypeBuffer&) = delete;
    PrototypeBuffer& operator=(const PrototypeBuffer&) = delete;

    PrototypeEdge* begin() const noexcept { return first_; }
    PrototypeEdge* end() const noexcept { return end_; }

  private:
    static constexpr std::size_t hugePage = std::size_t{2} << 20;
    std::size_t bytes_;
    void* pages_;
    PrototypeEdge* first_ = nullptr;
    PrototypeEdge* end_ = nullptr;
};

/// Where the calling thread writes.
struct PrototypeWriter {
    PrototypeEdge* next = nullptr;
    PrototypeEdge* end = nullptr;
    PrototypeEdge* begin = nullptr;
};
inline thread_local PrototypeWriter prototypeWriter;

/// Begins again where the buffer is full.
inline void putEdge(std::uint64_t name) noexcept {
    PrototypeWriter& writer = prototypeWriter;
    if (writer.next == writer.end) [[unlikely]]
        writer.next = writer.begin;
    *writer.next++ = {tick(), name};
    benchmark::ClobberMemory();
}

/// A pair in that buffer.
class PrototypeScope {
  public:
    explicit PrototypeScope(const instrument::Instrument& name)
        : name_(reinterpret_cast<std::uintptr_t>(name.handle())) {
        putEdge(name_);
    }
    ~PrototypeScope() { putEdge(name_ | 1); }
    PrototypeScope(const PrototypeScope&) = delete;
    PrototypeScope& operator=(const PrototypeScope&) = delete;

  private:
    std::uint64_t name_;
};

/// Has the thread write to the buffer as long as it lives.
class PrototypeRecording {
  public:
    explicit PrototypeRecording(std::size_t edges) : buffer_(edges) {
        prototypeWriter = {buffer_.begin(), buffer_.end(), buffer_.begin()};
    }
    ~PrototypeRecording() { prototypeWriter = {}; }
    PrototypeRecording(const PrototypeRecording&) = delete;
    PrototypeRecording& operator=(const PrototypeRecording&) = delete;

  private:
    PrototypeBuffer buffer_;
};

}  // namespace bench
