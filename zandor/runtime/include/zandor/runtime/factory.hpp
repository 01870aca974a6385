// The host's class factory: the method descriptor that plug-ins derive their bindings from, the
// data-type names of signatures, and the conversions of host values that bindings share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/export.hpp"
#include "zandor/runtime/text.hpp"

namespace kobs::factory {

/// A host value of the wrong class: what the reporters below throw.
class ZANDOR_RUNTIME_API HostTypeError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    ~HostTypeError() override;
};

/// A set of method attributes, combined by OR.
class ZANDOR_RUNTIME_API MethodAttributes {
  public:
    /// Marks a method whose first argument is the object that it acts on.
    static constexpr std::uint32_t objectArgumentBit = 0x1000;

    MethodAttributes() noexcept = default;
    MethodAttributes(const MethodAttributes&) = default;
    MethodAttributes& operator=(const MethodAttributes&) = default;
    virtual ~MethodAttributes();

    static MethodAttributes Static() noexcept;
    static MethodAttributes Hidden() noexcept;
    static MethodAttributes Private() noexcept;

    std::uint32_t bits() const noexcept { return bits_; }
    bool contains(const MethodAttributes& other) const noexcept {
        return (bits_ & other.bits_) == other.bits_;
    }
    MethodAttributes& operator|=(const MethodAttributes& other) noexcept {
        bits_ |= other.bits_;
        return *this;
    }

  protected:
    explicit MethodAttributes(std::uint32_t bits) noexcept : bits_(bits) {}

  private:
    std::uint32_t bits_ = 0;
};

/// The factory's method descriptor: all of COSMethodInfo but the invocation.
class ZANDOR_RUNTIME_API KobsMethod : public COSMethodInfo {
  public:
    KobsMethod(std::string name, MethodAttributes attributes, std::string description);
    ~KobsMethod() override;

    const std::string& getName() const override;
    const std::string& getDescription() const override;
    bool isLookupScope() const override;
    const std::string& getDetailedDescription() const override;
    MemberAccess getMemberAccess() const override;
    std::int32_t getExtendedAccess() const override;
    COSMethodSignaturePtr getMethodSignature() const override;
    bool isFirstArgDispatch() const override;
    bool isStatic() const override;
    bool isAbstract() const override;
    bool isSealed() const override;
    bool isVisible() const override;
    bool isDestructible() const override;
    bool isLocked() const override;
    bool isExplicit() const override;
    bool doesMethodOverrideAllSignatures() const override;

    const MethodAttributes& attributes() const noexcept { return attributes_; }

    /// Makes a signature and stores it in `slot`.
    static void createSignatureImpl(COSMethodSignaturePtr& slot, bool objectArgument,
                                    const std::string& text,
                                    std::vector<internal::InternedString> outputs,
                                    std::vector<internal::InternedString> inputs);

  protected:
    MethodAttributes attributes_;
    COSMethodSignaturePtr signature_;

  private:
    std::string name_;
    std::string description_;
};

/// The host array that a method hands over as its "any" result. Copies share one owner, whose
/// last destroys the array unless it was released.
class ZANDOR_RUNTIME_API hxArrayProxy {
  public:
    hxArrayProxy() noexcept = default;
    explicit hxArrayProxy(hxArray* owned);
    hxArray* get() const noexcept;
    /// Hands the array over: no copy destroys it any more, and all of them hold none.
    hxArray* release() noexcept;

  private:
    std::shared_ptr<matrix::Array> owner_;
};

/// The text of a character array, or of a string array with one element.
ZANDOR_RUNTIME_API fl::ustring extractString(const hxArray* array);

/// True when `array` is a string array, which extractFromStringVector can split.
ZANDOR_RUNTIME_API bool isStringVector(const hxArray* array) noexcept;
ZANDOR_RUNTIME_API std::vector<fl::ustring> extractFromStringVector(const hxArray* array);

/// Both throw HostTypeError; the second names the element by its zero-based index.
[[noreturn]] ZANDOR_RUNTIME_API void errorMustBeCellArray();
[[noreturn]] ZANDOR_RUNTIME_API void errorMustBeString(std::size_t index);

namespace detail {
/// Makes the factory's data-type names exist. Cheap after the first call; from any thread.
ZANDOR_RUNTIME_API void initStringDataTypes();
}  // namespace detail

namespace impl {
/// The host's check of a converted argument: an object that was deleted is refused, plain values
/// always pass.
template <typename T>
void validateSelfPointer(const T&) noexcept {}
}  // namespace impl

}  // namespace kobs::factory
