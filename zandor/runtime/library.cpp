#include "zandor/runtime/library.hpp"

#include <dlfcn.h>

#include <string>

namespace {

thread_local std::string lastError;

void* load(const char* name) {
    lastError.clear();
    if (!name || !*name) {
        lastError = "no library was named";
        return nullptr;
    }
    void* library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (!library)
        lastError = dlerror();
    return library;
}

}  // namespace

void* utLoadLibrary(const char* name, int* status) {
    void* library = load(name);
    *status = library ? 0 : 1;
    return library;
}

const char* utLastLibraryError() {
    return lastError.c_str();
}
