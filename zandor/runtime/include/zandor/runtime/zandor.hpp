// Embedding the host: load a plug-in, look up what it published, call it.
//
//   zandor::Plugin plugin = zandor::Plugin::load("libvantrace.so");
//   zandor::Method has = zandor::resolve("performance.instrument.controls.has");
//   zandor::Value known = has.call({zandor::Value::text("solve")});
//   plugin.unload();
//
// Handles (Plugin, Namespace, Method) are cheap to copy and stay valid after the plug-in is gone:
// what they then do is throw NotLoadedError. All functions may be called from any thread; `unload`
// waits for running calls and must not be called from inside one.
#pragma once

#include <bit>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/export.hpp"
#include "zandor/runtime/factory.hpp"

namespace zandor {

/// A plug-in could not be loaded or not be unmapped; the text has the loader's words.
class ZANDOR_RUNTIME_API PluginError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    ~PluginError() override;
};
/// What was called belongs to a plug-in that is not loaded (any more).
class ZANDOR_RUNTIME_API NotLoadedError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    ~NotLoadedError() override;
};
/// No namespace or method of that name is published.
class ZANDOR_RUNTIME_API NameNotFoundError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    ~NameNotFoundError() override;
};
/// A wrong number of arguments, or an argument of a wrong kind.
class ZANDOR_RUNTIME_API ArgumentError : public kobs::factory::HostTypeError {
  public:
    using kobs::factory::HostTypeError::HostTypeError;
    ~ArgumentError() override;
};
/// A number that the argument's type cannot hold.
class ZANDOR_RUNTIME_API ArgumentRangeError : public std::out_of_range {
  public:
    using std::out_of_range::out_of_range;
    ~ArgumentRangeError() override;
};

/// One argument or result: nothing, a scalar, or an array that it owns.
class ZANDOR_RUNTIME_API Value {
  public:
    enum class Kind : std::uint8_t {
        none,
        logical,
        integer,
        unsignedInteger,
        hugeInteger,
        real,
        array
    };

    Value() noexcept = default;
    static Value logical(bool value) noexcept { return {Kind::logical, value}; }
    static Value integer(std::int64_t value) noexcept {
        return {Kind::integer, std::bit_cast<std::uint64_t>(value)};
    }
    static Value unsignedInteger(std::uint64_t value) noexcept {
        return {Kind::unsignedInteger, value};
    }
    /// An integer beyond 64 bits, which every integer argument refuses as out of range.
    static Value hugeInteger(bool negative) noexcept { return {Kind::hugeInteger, negative}; }
    static Value real(double value) noexcept {
        return {Kind::real, std::bit_cast<std::uint64_t>(value)};
    }
    static Value array(matrix::Array value) noexcept;
    static Value text(std::string_view utf8);
    /// A string array of one column.
    static Value texts(std::span<const std::string> utf8);

    Kind kind() const noexcept { return kind_; }
    /// Whether an integer of any kind is below zero.
    bool isNegative() const noexcept;
    // Each of these throws ArgumentError when the value is of another kind.
    bool asLogical() const;
    std::int64_t asInteger() const;           ///< integer, or unsignedInteger that fits
    std::uint64_t asUnsignedInteger() const;  ///< unsignedInteger, or integer that fits
    double asReal() const;
    std::string asText() const;
    const hxArray* asArray() const;
    matrix::Array takeArray() &&;

  private:
    Value(Kind kind, std::uint64_t bits) noexcept : kind_(kind), bits_(bits) {}

    Kind kind_ = Kind::none;
    std::uint64_t bits_ = 0;
    matrix::Array array_;
};

/// What is published of a method.
struct MethodDescription {
    std::string name;      ///< "start"
    std::string fullName;  ///< "performance.instrument.recorder.start"
    std::vector<std::string> inputs;
    std::vector<std::string> outputs;
    bool isStatic = false;
    bool isHidden = false;
    bool isPrivate = false;
    int minimumInputs = 0;  ///< the two numbers given at registration, as they came
    int flags = 0;
};

class ZANDOR_RUNTIME_API Method {
  public:
    /// Calls the method. The number of arguments and the scalar ones (kind and range, from the last
    /// to the first) are checked here, text and lists by the method's own conversion; what that
    /// refuses is a HostTypeError that begins with the method's full name. Exceptions of the
    /// method's pass; one whose type is the plug-in's own arrives as its nearest standard base,
    /// so that it outlives the plug-in. Arguments stay the caller's, whatever happens.
    Value call(std::span<Value> arguments) const;
    Value call(std::initializer_list<Value> arguments) const = delete;  // Values cannot be copied
    template <typename... Values>
    Value operator()(Values&&... values) const {
        Value arguments[sizeof...(values) + 1] = {std::forward<Values>(values)..., Value()};
        return call(std::span<Value>(arguments, sizeof...(values)));
    }
    const MethodDescription& description() const noexcept;
    /// False once the plug-in that published the method is being unloaded.
    bool isLoaded() const noexcept;

    class Node;
    explicit Method(std::shared_ptr<const Node> node) noexcept : node_(std::move(node)) {}

  private:
    std::shared_ptr<const Node> node_;
};

class ZANDOR_RUNTIME_API Namespace {
  public:
    const std::string& name() const noexcept;
    const std::string& fullName() const noexcept;
    const std::string& description() const noexcept;
    const std::string& detailedDescription() const noexcept;
    bool isLoaded() const noexcept;

    // These populate the namespace when it was not yet. In registration order.
    std::vector<Namespace> namespaces() const;
    std::vector<Method> methods() const;  ///< hidden and private ones included
    /// Throws NameNotFoundError.
    Namespace findNamespace(std::string_view name) const;
    Method findMethod(std::string_view name) const;

    class Node;
    explicit Namespace(std::shared_ptr<Node> node) noexcept : node_(std::move(node)) {}

  private:
    std::shared_ptr<Node> node_;
};

/// The published roots, in order of publication.
ZANDOR_RUNTIME_API std::vector<Namespace> roots();
ZANDOR_RUNTIME_API Namespace findRoot(std::string_view name);

enum class Door : std::uint8_t { publicOnly, privateToo };
/// The method of a dotted name. Private methods only through Door::privateToo.
ZANDOR_RUNTIME_API Method resolve(std::string_view fullName, Door door = Door::publicOnly);

/// The last thing that the class system refused without throwing; empty when there was none.
ZANDOR_RUNTIME_API std::string lastError();
ZANDOR_RUNTIME_API void clearLastError();

/// A loaded library's place in memory.
struct LibraryRange {
    const void* begin;
    const void* end;
    bool contains(const void* address) const noexcept { return address >= begin && address < end; }
};

/// Called at each unload, after the last call ended and before the library is unmapped, so that
/// other libraries can let go of objects in its memory. Observers stay for the life of the process.
using UnloadObserver = void (*)(const LibraryRange& range) noexcept;
ZANDOR_RUNTIME_API void addUnloadObserver(UnloadObserver observer);

class ZANDOR_RUNTIME_API Plugin {
  public:
    /// Loads the library and calls its `ZDInitialize_<name>`, where the file is lib<name>.so. A
    /// library that is loaded already gives its handle again. Throws PluginError.
    static Plugin load(const std::filesystem::path& file);

    bool isLoaded() const noexcept;
    const std::filesystem::path& path() const noexcept;
    /// Refuses new calls, waits for running ones, destroys what the library published, tells the
    /// observers, calls `ZDTerminate_<name>` and unmaps the library. Throws PluginError when it
    /// stays mapped. Does nothing when it is not loaded.
    void unload();

    class Node;
    explicit Plugin(std::shared_ptr<Node> node) noexcept : node_(std::move(node)) {}

  private:
    std::shared_ptr<Node> node_;
};

}  // namespace zandor
