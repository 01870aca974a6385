// The host's class system: packages of namespaces and methods, published by plug-ins.
//
//   root COSNamespaceInfo --COSPackage::addNamespace--> registry
//        populatePackage(package)   at first need:  package.addChildNamespace / package.addMethod
//
// A plug-in derives from the two bases here and hands objects over; the host owns them from then
// on and destroys them through their virtual destructors. The order of the virtual operations is
// binary interface and must not change. Namespaces are populated at the first need, once, under a
// guard of the namespace; what was populated becomes visible only when population returned.
// Queries may come from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zandor/runtime/export.hpp"

namespace kobs {

namespace internal {

/// A text that the process keeps once: two of equal text are the same object.
class ZANDOR_RUNTIME_API InternedString {
  public:
    InternedString() noexcept = default;
    std::string_view text() const noexcept;
    bool operator==(const InternedString&) const noexcept = default;

  private:
    friend ZANDOR_RUNTIME_API InternedString makeInterned(std::string_view text);
    explicit InternedString(const std::string* entry) noexcept : entry_(entry) {}
    const std::string* entry_ = nullptr;
};

/// Interns `text`. A text that is known already is found without a lock.
ZANDOR_RUNTIME_API InternedString makeInterned(std::string_view text);

/// Decides whether the allocation operators of the two bases below may allocate; for tests of
/// what happens when an allocation yields nothing. Null (the default) allows every allocation.
using AllocationGate = bool (*)(std::size_t size) noexcept;
ZANDOR_RUNTIME_API AllocationGate setAllocationGate(AllocationGate gate) noexcept;

}  // namespace internal

class COSNamespaceInfo;
class COSMethodInfo;

/// What a method takes and gives, as data-type names.
struct MethodSignature {
    bool objectArgument = false;  ///< the first argument is the object that the method acts on
    std::string text;
    std::vector<internal::InternedString> outputs;
    std::vector<internal::InternedString> inputs;
};
using COSMethodSignaturePtr = std::shared_ptr<const MethodSignature>;

enum class MemberAccess : std::int32_t { publicAccess = 0, privateAccess = 1 };

/// A name was defined that its package has already.
class ZANDOR_RUNTIME_API NameExistsError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    ~NameExistsError() override;
};

/// A package under population: takes over what a namespace registers.
class ZANDOR_RUNTIME_API COSPackage {
  public:
    /// Publishes a root namespace and takes it over. Never throws: a null object or a name that
    /// is published already is refused (and destroyed) and becomes the host's last error.
    static void addNamespace(COSNamespaceInfo* root) noexcept;

    /// Takes over a child namespace. Null is refused and becomes the host's last error; a name
    /// that the package has already goes to throwErrorForDefinitionOfExistingName of the
    /// namespace under population, and the object is destroyed.
    void addChildNamespace(COSNamespaceInfo* child);

    /// Takes over a method, with the same two rules. `minimumInputs` and `flags` are kept with it.
    void addMethod(COSMethodInfo* method, int minimumInputs, int flags);

    class Impl;
    explicit COSPackage(Impl& impl) noexcept : impl_(impl) {}

  private:
    Impl& impl_;
};

/// One call's cells: a scalar is a raw value, anything else a pointer to a host array.
using Cell = std::uint64_t;

/// A published namespace. Derived classes override the four operations marked "own".
class ZANDOR_RUNTIME_API COSNamespaceInfo {
  public:
    /// Yields null instead of throwing.
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* object) noexcept;

    COSNamespaceInfo() noexcept;
    COSNamespaceInfo(const COSNamespaceInfo&) = delete;
    COSNamespaceInfo& operator=(const COSNamespaceInfo&) = delete;

    virtual ~COSNamespaceInfo();                             // own
    virtual const char* getName() const = 0;                 // own
    virtual const char* getDescription() const = 0;          // own
    virtual const char* getDetailedDescription() const = 0;  // own
    virtual bool attemptToLoadInnerNamespace(COSPackage& package, std::string_view name);
    virtual bool attemptToLoadSubPackage(COSPackage& package, std::string_view name);
    [[noreturn]] virtual void throwErrorForDefinitionOfExistingName(std::string_view name);
    virtual bool attemptToLoadClass(COSPackage& package, std::string_view name);
    virtual bool attemptToLoadFunction(COSPackage& package, std::string_view name);
    virtual bool attemptToLoadType(COSPackage& package, std::string_view name);
    virtual const COSMethodInfo* getMethodSelector() const;
    /// Registers child namespaces and methods; called by the host through initializePackage.
    virtual void populatePackage(COSPackage& package) = 0;  // own
    virtual void initializePackage(COSPackage& package);
    virtual bool isDestructible() const;
    virtual bool isLocked() const;
    virtual bool canLoadDynamicContent() const;
};

/// A published method.
class ZANDOR_RUNTIME_API COSMethodInfo {
  public:
    /// Yields null instead of throwing.
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* object) noexcept;

    COSMethodInfo() noexcept;
    COSMethodInfo(const COSMethodInfo&) = delete;
    COSMethodInfo& operator=(const COSMethodInfo&) = delete;

    virtual ~COSMethodInfo();
    virtual const std::string& getName() const = 0;
    virtual const std::string& getDescription() const = 0;
    virtual bool isLookupScope() const;
    virtual const std::string& getDetailedDescription() const = 0;
    virtual MemberAccess getMemberAccess() const;
    virtual std::int32_t getExtendedAccess() const;
    virtual COSMethodSignaturePtr getMethodSignature() const = 0;
    /// Calls the method. `host` is a value of the host's own. `resultCount` is how many results
    /// the caller asks for; arrays left in `results` are the caller's. Errors are exceptions.
    virtual void invoke(void* host, std::int32_t* resultCount, Cell* results,
                        std::int32_t argumentCount, const Cell* arguments) = 0;
    virtual bool isFirstArgDispatch() const;
    virtual bool isStatic() const;
    virtual bool isAbstract() const;
    virtual bool isSealed() const;
    virtual bool isVisible() const;
    virtual bool isDestructible() const;
    virtual bool isLocked() const;
    virtual bool isExplicit() const;
    virtual bool doesMethodOverrideAllSignatures() const;
};

}  // namespace kobs
