// The plug-in's methods by name below the root, in a process whose files go to a folder of its own.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zandor/runtime/array.hpp"
#include "zandor/runtime/zandor.hpp"

namespace published {

using Arguments = std::vector<zandor::Value>;

inline zandor::Value text(const std::string& utf8) {
    return zandor::Value::text(utf8);
}
inline zandor::Value texts(const std::vector<std::string>& list) {
    return zandor::Value::texts(list);
}

template <typename... Values>
Arguments arguments(Values&&... values) {
    Arguments made;
    (made.push_back(std::forward<Values>(values)), ...);
    return made;
}

/// Where this process's files go: removed when it ends.
class Folder {
  public:
    Folder() {
        std::string name = std::filesystem::temp_directory_path() / "vantrace-XXXXXX";
        if (!mkdtemp(name.data()))
            throw std::runtime_error("no temporary folder");
        path_ = name;
        for (const char* variable : {"XDG_STATE_HOME", "XDG_RUNTIME_DIR"})
            setenv(variable, name.c_str(), 1);
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::filesystem::path& path() const noexcept { return path_; }

  private:
    std::filesystem::path path_;
};

/// One in a process, which loads the plug-in.
class Methods {
  public:
    static Methods& get() {
        static Methods methods;
        return methods;
    }

    zandor::Value call(const std::string& name, Arguments values = {}) const {
        return byName_.at(name).call(values);
    }
    const std::map<std::string, zandor::Method>& byName() const noexcept { return byName_; }
    const std::filesystem::path& folder() const noexcept { return folder_.path(); }

  private:
    Methods() {
        zandor::Plugin::load(VANTRACE_PLUGIN_PATH);
        addAll(zandor::findRoot("performance"), "");
    }
    void addAll(const zandor::Namespace& space, const std::string& prefix) {
        for (const zandor::Method& method : space.methods())
            byName_.emplace(prefix + method.description().name, method);
        for (const zandor::Namespace& inner : space.namespaces())
            addAll(inner, prefix + inner.name() + ".");
    }

    Folder folder_;
    std::map<std::string, zandor::Method> byName_;
};

inline zandor::Value call(const std::string& name, Arguments values = {}) {
    return Methods::get().call(name, std::move(values));
}

/// What "startEvent" gives.
struct OpenEvent {
    std::uint64_t source = 0;
    std::uint64_t serial = 0;

    OpenEvent(std::uint64_t itsSource, std::uint64_t itsSerial)
        : source(itsSource), serial(itsSerial) {}
    explicit OpenEvent(const zandor::Value& result)
        : source(number(result, "sourceId")), serial(number(result, "serialId")) {}

  private:
    static std::uint64_t number(const zandor::Value& result, const char* field) {
        const hxArray* value = matrix::hx::hxGetField(result.asArray(), 0, field);
        return *static_cast<const std::uint64_t*>(matrix::hx::hxGetData(value));
    }
};

inline OpenEvent startEvent(const std::string& name, const std::vector<std::string>& context) {
    return OpenEvent(
        call("instrument.instruments.startEvent", arguments(text(name), texts(context))));
}

inline void stopEvent(const std::string& name, const std::vector<std::string>& context,
                      OpenEvent event) {
    call("instrument.instruments.stopEvent",
         arguments(text(name), texts(context), zandor::Value::unsignedInteger(event.source),
                   zandor::Value::unsignedInteger(event.serial)));
}

}  // namespace published
