// Namespaces and methods that tests publish from within the test program.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/factory.hpp"

namespace zandor::testing {

/// A method that runs what the test gave it.
class TestMethod : public kobs::factory::KobsMethod {
  public:
    using Body = std::function<void(std::int32_t* resultCount, kobs::Cell* results,
                                    std::int32_t argumentCount, const kobs::Cell* arguments)>;

    TestMethod(const std::string& name, const std::vector<std::string>& inputs,
               const std::string& output, Body body,
               kobs::factory::MethodAttributes attributes = {})
        : KobsMethod(name, attributes, ""), body_(std::move(body)) {
        std::vector<kobs::internal::InternedString> interned;
        for (const std::string& input : inputs) {
            interned.push_back(kobs::internal::makeInterned(input));
        }
        createSignatureImpl(signature_, false, "", {kobs::internal::makeInterned(output)},
                            std::move(interned));
    }

    void invoke(void*, std::int32_t* resultCount, kobs::Cell* results, std::int32_t argumentCount,
                const kobs::Cell* arguments) override {
        body_(resultCount, results, argumentCount, arguments);
    }

  private:
    Body body_;
};

/// A namespace that populates itself as the test says.
class TestNamespace : public kobs::COSNamespaceInfo {
  public:
    using Population = std::function<void(kobs::COSPackage&)>;

    explicit TestNamespace(std::string name, Population population = {})
        : name_(std::move(name)), population_(std::move(population)) {}
    ~TestNamespace() override {
        if (onDestruction)
            onDestruction();
    }

    const char* getName() const override { return name_.c_str(); }
    const char* getDescription() const override { return "described"; }
    const char* getDetailedDescription() const override { return "described in detail"; }
    void populatePackage(kobs::COSPackage& package) override {
        if (population_)
            population_(package);
    }

    std::function<void()> onDestruction;

  private:
    std::string name_;
    Population population_;
};

/// Publishes a root that stays for the life of the program.
inline void publish(std::string name, TestNamespace::Population population = {}) {
    kobs::COSPackage::addNamespace(new TestNamespace(std::move(name), std::move(population)));
}

}  // namespace zandor::testing
