// A plug-in that does all that a plug-in can do to its host.
#include <bit>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "zandor/runtime/class_system.hpp"
#include "zandor/runtime/factory.hpp"
#include "zandor/runtime/testing/journal.hpp"

namespace {

using kobs::Cell;
using kobs::COSPackage;
using kobs::internal::InternedString;
using kobs::internal::makeInterned;
using zandor::testing::Inside;
using zandor::testing::Journal;

Journal* journal = nullptr;

void write(const char* line) {
    if (journal)
        journal->add(line);
}

const struct Unloaded {
    ~Unloaded() { write("static objects destroyed"); }
} unloaded;

/// An exception whose type, code and text are the plug-in's.
class OwnError : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
    const char* what() const noexcept override { return "an error of the plug-in's own"; }
};

using Function = Cell (*)(const Cell* arguments);

class SampleMethod : public kobs::factory::KobsMethod {
  public:
    SampleMethod(const char* name, std::vector<InternedString> inputs, const char* output,
                 Function function)
        : KobsMethod(name, kobs::factory::MethodAttributes::Static(), ""), function_(function) {
        createSignatureImpl(signature_, false, "", {makeInterned(output)}, std::move(inputs));
    }
    ~SampleMethod() override { write("method destroyed"); }

    void invoke(void*, std::int32_t* resultCount, Cell* results, std::int32_t,
                const Cell* arguments) override {
        const Cell result = function_(arguments);
        if (*resultCount > 0)
            results[0] = result;
    }

  private:
    Function function_;
};

class SampleNamespace : public kobs::COSNamespaceInfo {
  public:
    SampleNamespace(const char* name, void (*population)(COSPackage&))
        : name_(name), population_(population) {}
    ~SampleNamespace() override { write("namespace destroyed"); }
    const char* getName() const override { return name_; }
    const char* getDescription() const override { return "a sample"; }
    const char* getDetailedDescription() const override { return "a sample in detail"; }
    void populatePackage(COSPackage& package) override { population_(package); }

  private:
    const char* name_;
    void (*population_)(COSPackage&);
};

Cell keepJournal(const Cell* arguments) {
    journal = std::bit_cast<Journal*>(arguments[0]);
    return 0;
}

Cell run(const Cell* arguments) {
    const auto& inside = *std::bit_cast<const Inside*>(arguments[0]);
    inside.function(inside.argument);
    return 0;
}

Cell answer(const Cell*) {
    return 42;
}

Cell echo(const Cell* arguments) {
    const auto* text = std::bit_cast<const hxArray*>(arguments[0]);
    return std::bit_cast<Cell>(matrix::create(matrix::hx::hxArrayToStdString(text)).release());
}

Cell throwOwn(const Cell*) {
    throw OwnError("hidden");
}

void populateInner(COSPackage& package) {
    package.addMethod(new SampleMethod("answer", {}, "uint64 scalar", answer), 0, 2);
}

void failToPopulate(COSPackage&) {
    throw OwnError("hidden");
}

void populate(COSPackage& package) {
    const InternedString pointer = makeInterned("uint64 scalar");
    package.addChildNamespace(new SampleNamespace("inner", populateInner));
    package.addChildNamespace(new SampleNamespace("failing", failToPopulate));
    package.addMethod(new SampleMethod("keepJournal", {pointer}, "void", keepJournal), 0, 2);
    package.addMethod(new SampleMethod("run", {pointer}, "void", run), 0, 2);
    package.addMethod(new SampleMethod("echo", {makeInterned("char")}, "any", echo), 0, 2);
    package.addMethod(new SampleMethod("throwOwn", {}, "void", throwOwn), 0, 2);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void ZDInitialize_sample() {
    COSPackage::addNamespace(new SampleNamespace("sample", populate));
}

extern "C" __attribute__((visibility("default"))) void ZDTerminate_sample() {
    write("terminate");
}
