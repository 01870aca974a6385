// A package while its namespace is being populated.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "zandor/runtime/class_system.hpp"

/// Owns what was registered until the population returned; a failed population loses it all.
class kobs::COSPackage::Impl {
  public:
    struct MethodEntry {
        std::unique_ptr<COSMethodInfo> info;
        int minimumInputs;
        int flags;
    };

    explicit Impl(COSNamespaceInfo& owner) noexcept : owner_(owner) {}
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void add(std::unique_ptr<COSNamespaceInfo> child);
    void add(MethodEntry method);

    std::vector<std::unique_ptr<COSNamespaceInfo>> namespaces;
    std::vector<MethodEntry> methods;

  private:
    void define(std::string_view name);
    void refuse(const char* what);

    COSNamespaceInfo& owner_;
    std::unordered_set<std::string> names_;
};
