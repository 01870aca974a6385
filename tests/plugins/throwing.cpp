// A plug-in whose entry point fails after it published something.
#include <stdexcept>

#include "zandor/runtime/class_system.hpp"

namespace {

class Half : public kobs::COSNamespaceInfo {
  public:
    const char* getName() const override { return "throwing"; }
    const char* getDescription() const override { return ""; }
    const char* getDetailedDescription() const override { return ""; }
    void populatePackage(kobs::COSPackage&) override {}
};

}  // namespace

extern "C" __attribute__((visibility("default"))) void ZDInitialize_throwing() {
    kobs::COSPackage::addNamespace(new Half);
    throw std::runtime_error("out of tea");
}
