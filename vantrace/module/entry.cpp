#include "vantrace/module/entry.hpp"

#include "vantrace/module/namespaces.hpp"

namespace {

bool initialized = false;

}  // namespace

void ZDInitialize_vantrace() noexcept {
    if (initialized)
        return;
    // First of all, so that what fails is not tried again.
    initialized = true;
    kobs::COSPackage::addNamespace(vantrace::makeNamespace<vantrace::PerformanceNamespace>());
}

void ZDTerminate_vantrace() noexcept {}
