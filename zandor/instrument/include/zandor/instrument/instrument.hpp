// Instruments for native code: name a stretch of work, and it can be recorded, counted, profiled.
//
//   static const instrument::Instrument solve{"solve"};
//   { instrument::Scope scope{solve}; /* timed */ }
//   { instrument::Scope scope{solve, {{"n", n}, {"method", "cg"}}}; }  // numbers as they are
//   solve.instant();
//   auto event = solve.start(); solve.stop(event);  // the stop may come from another thread
//   instrument::setThreadName("io");
//
//   your code -> Instrument, Scope -> (flags, inline) -> listeners -> recorder, counter, ...
//
// While nobody listens, or the instrument is off, a scope costs two relaxed loads and predicted
// branches: nothing is formatted, copied or allocated. The macro forms at the end also skip
// evaluating the arguments, and compile to nothing where ZANDOR_INSTRUMENT_DISABLED is defined.
//
// All of it may be used from any thread, from static constructors, from exit handlers and from
// signal handlers. A listener's exception reaches the code that produced the event, but for a
// Scope's destructor, which swallows it.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>

#include "zandor/instrument/control_element.hpp"
#include "zandor/instrument/event_id.hpp"
#include "zandor/instrument/export.hpp"
#include "zandor/instrument/listeners.hpp"

namespace instrument {

namespace detail {
template <typename T>
concept TextLike = std::convertible_to<const T&, std::string_view>;
template <typename T>
concept UnsignedNumber = std::unsigned_integral<T> && !std::same_as<T, bool>;
}  // namespace detail

/// A context value as it was given; numbers become text only when somebody reads them.
class ContextValue {
  public:
    enum class Kind : std::uint8_t { text, signedInteger, unsignedInteger, real, logical };

    constexpr ContextValue() noexcept : kind_(Kind::text), length_(0), text_("") {}
    template <detail::TextLike Text>
    constexpr ContextValue(const Text& text) noexcept : kind_(Kind::text), length_(0), text_("") {
        const std::string_view view(text);
        text_ = view.data();
        length_ = static_cast<std::uint32_t>(view.size());
    }
    template <std::same_as<bool> Bool>
    constexpr ContextValue(Bool value) noexcept
        : kind_(Kind::logical), length_(0), unsigned_(value ? 1 : 0) {}
    template <std::signed_integral Integer>
    constexpr ContextValue(Integer value) noexcept
        : kind_(Kind::signedInteger), length_(0), signed_(value) {}
    template <detail::UnsignedNumber Integer>
    constexpr ContextValue(Integer value) noexcept
        : kind_(Kind::unsignedInteger), length_(0), unsigned_(value) {}
    template <std::floating_point Real>
    constexpr ContextValue(Real value) noexcept
        : kind_(Kind::real), length_(0), real_(static_cast<double>(value)) {}

    constexpr Kind kind() const noexcept { return kind_; }
    constexpr std::string_view text() const noexcept { return {text_, length_}; }
    constexpr std::int64_t signedInteger() const noexcept { return signed_; }
    constexpr std::uint64_t unsignedInteger() const noexcept { return unsigned_; }
    constexpr double real() const noexcept { return real_; }
    constexpr bool logical() const noexcept { return unsigned_ != 0; }

  private:
    Kind kind_;
    std::uint32_t length_;
    union {
        const char* text_;
        std::int64_t signed_;
        std::uint64_t unsigned_;
        double real_;
    };
};

/// One context entry of a native event. Of entries with equal names the first counts.
struct ContextArg {
    std::string_view name;
    ContextValue value;
};
using ContextArgs = std::span<const ContextArg>;

class LiteralContext;
class Scope;
class OpenEvent;

/// A named kind of event. Making one registers the name; copies are the same instrument.
class Instrument {
  public:
    /// Throws std::invalid_argument for a name with a NUL inside.
    explicit Instrument(std::string_view name) : handle_(registerName(name)) {}
    explicit Instrument(const Opaque* handle) noexcept : handle_(handle) {}

    const Opaque* handle() const noexcept { return handle_; }
    const char* name() const noexcept { return handle_->name; }

    /// Whether an event without context would be delivered now.
    bool isOn() const noexcept {
        return listeners.anyActive() && handle_->enabled.load(std::memory_order_relaxed);
    }
    /// Whether an event with a context might be: its rules are asked only then.
    bool mayBeOn() const noexcept {
        return listeners.anyActive() && (handle_->enabled.load(std::memory_order_relaxed) ||
                                         handle_->hasContextRules.load(std::memory_order_relaxed));
    }

    void instant() const {
        if (isOn()) [[unlikely]]
            emitInstant(handle_, ContextArgs());
    }
    void instant(std::initializer_list<ContextArg> context) const {
        if (mayBeOn()) [[unlikely]]
            emitInstant(handle_, {context.begin(), context.size()});
    }
    /// For literal_context.hpp; a template, so that lists of entries are none.
    template <std::same_as<LiteralContext> Context>
    void instant(const Context& context) const {
        if (mayBeOn()) [[unlikely]]
            emitInstant(handle_, context);
    }

    /// Opens an event. What it gives may be copied, handed to another thread, or dropped.
    OpenEvent start() const;
    OpenEvent start(std::initializer_list<ContextArg> context) const;
    /// Ends it: delivered, with the start's context, when the start was and a listener is active.
    void stop(const OpenEvent& event) const;

  private:
    ZANDOR_INSTRUMENT_API static const Opaque* registerName(std::string_view name);
    ZANDOR_INSTRUMENT_DIRECT static void emitInstant(const Opaque* handle, ContextArgs context);
    ZANDOR_INSTRUMENT_DIRECT static void emitInstant(const Opaque* handle,
                                                     const LiteralContext& context);

    const Opaque* handle_;
};

namespace detail {

struct OpenScope;
class TextCache;

/// The context of an open event, kept for its stop: texts are the library's own, so that the
/// caller's need not outlive the start.
class KeptContext {
  public:
    /// So many are kept as the words that records have of them, more as arguments.
    static constexpr std::size_t fewEntries = 4;
    static constexpr std::size_t fewWords = 2 * fewEntries;

    KeptContext() noexcept {}
    /// Throws std::bad_alloc.
    void keep(ContextArgs context, TextCache& texts);
    bool empty() const noexcept { return count_ == 0; }
    bool isMany() const noexcept { return more_ != nullptr; }
    // What there is of the two.
    std::span<const std::uint64_t> few() const noexcept { return {few_, more_ ? 0 : count_}; }
    ContextArgs many() const noexcept { return {more_.get(), more_ ? count_ : 0}; }

  private:
    void keepMany(ContextArgs context, TextCache& texts);

    std::uint32_t count_ = 0;
    std::shared_ptr<const ContextArg[]> more_;
    union {
        std::uint64_t few_[fewWords];  // the first count_ are alive, unless there are more
    };
};

/// Decides by the switch and the context rules, and delivers. Gives a reserved identity when it did
/// not.
ZANDOR_INSTRUMENT_DIRECT EventId openEvent(const Opaque* handle);
ZANDOR_INSTRUMENT_DIRECT EventId openEvent(const Opaque* handle, ContextArgs context,
                                           KeptContext& kept);
ZANDOR_INSTRUMENT_DIRECT EventId openEvent(const Opaque* handle, const LiteralContext& context);
ZANDOR_INSTRUMENT_DIRECT void closeEvent(const Opaque* handle, const KeptContext& kept, EventId id);

}  // namespace detail

/// An event between start and stop.
class OpenEvent {
  public:
    OpenEvent() noexcept = default;
    EventId id() const noexcept { return id_; }

  private:
    friend class Instrument;
    EventId id_ = noListenerEventId;
    detail::KeptContext context_;
};

/// An event that lasts as long as the scope.
class Scope {
  public:
    explicit Scope(const Instrument& instrument)
        : handle_(instrument.handle()),
          id_(instrument.isOn() ? detail::openEvent(instrument.handle()) : noListenerEventId) {}
    Scope(const Instrument& instrument, std::initializer_list<ContextArg> context)
        : handle_(nullptr),
          id_(noListenerEventId),
          context_(instrument.mayBeOn()
                       ? open(instrument.handle(), {context.begin(), context.size()})
                       : nullptr) {}
    /// For literal_context.hpp, as above. The context outlives the scope.
    template <std::same_as<LiteralContext> Context>
    Scope(const Instrument& instrument, const Context& context)
        : handle_(instrument.handle()),
          id_(instrument.mayBeOn() ? detail::openEvent(instrument.handle(), context)
                                   : noListenerEventId),
          context_(id_.sourceId != 0 ? &context : nullptr) {}
    template <std::same_as<LiteralContext> Context>
    Scope(const Instrument& instrument, const Context&& context) = delete;
    /// A scope without event.
    Scope() noexcept : handle_(nullptr), id_(noListenerEventId) {}
    // Inline whatever its size: with its constructor most of it goes.
    [[gnu::always_inline]] ~Scope() {
        if (id_.sourceId != 0) [[unlikely]] {
            if (listeners.anyHearsStops())
                context_ ? close(handle_, *static_cast<const LiteralContext*>(context_), id_)
                         : close(handle_, id_);
        } else if (context_) [[unlikely]] {
            close(static_cast<detail::OpenScope*>(const_cast<void*>(context_)));
        }
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

  private:
    // Not told `this`, so that a scope without event stays in registers.
    ZANDOR_INSTRUMENT_DIRECT static detail::OpenScope* open(const Opaque* handle,
                                                            ContextArgs context);
    ZANDOR_INSTRUMENT_DIRECT static void close(detail::OpenScope* event) noexcept;
    ZANDOR_INSTRUMENT_DIRECT static void close(const Opaque* handle, EventId id) noexcept;
    ZANDOR_INSTRUMENT_DIRECT static void close(const Opaque* handle, const LiteralContext& context,
                                               EventId id) noexcept;

    const Opaque* const handle_;
    const EventId id_;
    /// Of an event with an identity here: its literal context, if it has one. Else the event that
    /// keeps its own identity and context, if there is one.
    const void* const context_ = nullptr;
};

/// Names the calling thread in recordings. From any thread, at any time, for itself.
ZANDOR_INSTRUMENT_API void setThreadName(std::string_view name);

inline OpenEvent Instrument::start() const {
    OpenEvent event;
    if (!listeners.anyActive()) [[likely]]
        return event;
    event.id_ = detail::openEvent(handle_);
    return event;
}

inline OpenEvent Instrument::start(std::initializer_list<ContextArg> context) const {
    OpenEvent event;
    if (!listeners.anyActive()) [[likely]]
        return event;
    event.id_ = detail::openEvent(handle_, {context.begin(), context.size()}, event.context_);
    return event;
}

inline void Instrument::stop(const OpenEvent& event) const {
    if (event.id_.sourceId != 0 && listeners.anyHearsStops()) [[unlikely]]
        detail::closeEvent(handle_, event.context_, event.id_);
}

namespace detail {

/// An instrument that registers its name when it is first looked at with a listener active, so that
/// a function-local one needs no guard.
class LazyInstrument {
  public:
    constexpr explicit LazyInstrument(const char* name) noexcept : name_(name) {}
    Instrument get() const {
        // Pairs with the release in resolve: whoever sees the handle sees what it points to.
        if (const Opaque* handle = handle_.load(std::memory_order_acquire)) [[likely]]
            return Instrument(handle);
        return resolve();
    }

  private:
    ZANDOR_INSTRUMENT_API Instrument resolve() const;
    const char* name_;
    mutable std::atomic<const Opaque*> handle_{nullptr};
};

}  // namespace detail
}  // namespace instrument

// ZANDOR_SCOPE("solve");  ZANDOR_SCOPE("solve", {"n", n}, {"method", "cg"}); ZANDOR_INSTANT("hit");
// The name is a string literal.
#define ZANDOR_INSTRUMENT_JOIN2(a, b) a##b
#define ZANDOR_INSTRUMENT_JOIN(a, b) ZANDOR_INSTRUMENT_JOIN2(a, b)
#ifdef ZANDOR_INSTRUMENT_DISABLED
#define ZANDOR_SCOPE(name, ...) static_assert(true)
#define ZANDOR_INSTANT(name, ...) static_cast<void>(0)
#else
#define ZANDOR_SCOPE(name, ...)                                                                    \
    static constinit ::instrument::detail::LazyInstrument ZANDOR_INSTRUMENT_JOIN(zandorInstrument, \
                                                                                 __LINE__){name};  \
    const ::instrument::Scope ZANDOR_INSTRUMENT_JOIN(zandorScope, __LINE__) =                      \
        ::instrument::listeners.anyActive() &&                                                     \
                ZANDOR_INSTRUMENT_JOIN(zandorInstrument, __LINE__).get().mayBeOn()                 \
            ? ::instrument::Scope(ZANDOR_INSTRUMENT_JOIN(zandorInstrument, __LINE__)               \
                                      .get() __VA_OPT__(, {__VA_ARGS__}))                          \
            : ::instrument::Scope()
#define ZANDOR_INSTANT(name, ...)                                                     \
    do {                                                                              \
        static constinit ::instrument::detail::LazyInstrument zandorInstrument{name}; \
        if (::instrument::listeners.anyActive() && zandorInstrument.get().mayBeOn())  \
            zandorInstrument.get().instant(__VA_OPT__({__VA_ARGS__}));                \
    } while (false)
#endif
