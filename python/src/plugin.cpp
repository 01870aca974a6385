#include "plugin.hpp"

#include <dlfcn.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "errors.hpp"
#include "handle_object.hpp"
#include "method.hpp"
#include "text.hpp"
#include "zandor/runtime/console.hpp"
#include "zandor/runtime/zandor.hpp"

namespace vantrace {

namespace {

using PluginObject = HandleObject<zandor::Plugin>;
using NamespaceObject = HandleObject<zandor::Namespace>;

// Immortal, as the module is.
PyObject* pluginType = nullptr;
PyObject* namespaceType = nullptr;

Ref pathOf(const std::filesystem::path& path) {
    return Ref::take(PyUnicode_DecodeFSDefault(path.c_str()));
}

PyObject* pluginPath(PyObject* self, void*) {
    return guarded([&] { return pathOf(PluginObject::of(self).path()).release(); });
}

PyObject* pluginIsLoaded(PyObject* self, void*) {
    return PyBool_FromLong(PluginObject::of(self).isLoaded());
}

PyObject* pluginUnload(PyObject* self, PyObject*) {
    return guarded([&] {
        withoutLock([&] { PluginObject::of(self).unload(); });
        return Py_NewRef(Py_None);
    });
}

PyObject* pluginRepr(PyObject* self) {
    return guarded([&] {
        const Ref path = pathOf(PluginObject::of(self).path());
        const char* form =
            PluginObject::of(self).isLoaded() ? "<plug-in %R>" : "<plug-in %R, not loaded>";
        return PyUnicode_FromFormat(form, path.get());
    });
}

PyMethodDef pluginMethods[] = {
    {"unload", pluginUnload, METH_NOARGS,
     "Waits for running calls, takes back what the plug-in published and unmaps it."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef pluginProperties[] = {
    {"path", pluginPath, nullptr, "The file that was loaded.", nullptr},
    {"is_loaded", pluginIsLoaded, nullptr, "False once it is being unloaded.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot pluginSlots[] = {
    {Py_tp_doc, const_cast<char*>("A loaded plug-in.")},
    {Py_tp_dealloc, asSlot(PluginObject::deallocate)},
    {Py_tp_repr, asSlot(pluginRepr)},
    {Py_tp_methods, pluginMethods},
    {Py_tp_getset, pluginProperties},
    {0, nullptr},
};

PyType_Spec pluginSpec = {"vantrace.Plugin", sizeof(PluginObject), 0,
                          Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION, pluginSlots};

template <auto Text>
PyObject* namespaceText(PyObject* self, void*) {
    return guarded([&] {
        const std::string& text = std::invoke(Text, NamespaceObject::of(self));
        return strOf(std::string_view(text)).release();
    });
}

PyObject* namespaceIsLoaded(PyObject* self, void*) {
    return PyBool_FromLong(NamespaceObject::of(self).isLoaded());
}

Ref newNamespace(zandor::Namespace handle) {
    return NamespaceObject::make(namespaceType, std::move(handle));
}

template <typename Handles, typename Make>
Ref listOf(const Handles& handles, Make make) {
    Ref list = Ref::take(PyList_New(0));
    for (const auto& handle : handles)
        check(PyList_Append(list.get(), make(handle).get()));
    return list;
}

PyObject* namespaceNamespaces(PyObject* self, PyObject*) {
    return guarded([&] {
        const auto children = withoutLock([&] { return NamespaceObject::of(self).namespaces(); });
        return listOf(children, newNamespace).release();
    });
}

PyObject* namespaceMethods(PyObject* self, PyObject*) {
    return guarded([&] {
        const auto methods = withoutLock([&] { return NamespaceObject::of(self).methods(); });
        return listOf(methods, newMethod).release();
    });
}

PyMethodDef namespaceFunctions[] = {
    {"namespaces", namespaceNamespaces, METH_NOARGS, "Its namespaces in order of registration."},
    {"methods", namespaceMethods, METH_NOARGS,
     "Its methods in order of registration, hidden and private ones too."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef namespaceProperties[] = {
    {"name", namespaceText<&zandor::Namespace::name>, nullptr, nullptr, nullptr},
    {"full_name", namespaceText<&zandor::Namespace::fullName>, nullptr, nullptr, nullptr},
    {"description", namespaceText<&zandor::Namespace::description>, nullptr, nullptr, nullptr},
    {"detailed_description", namespaceText<&zandor::Namespace::detailedDescription>, nullptr,
     nullptr, nullptr},
    {"is_loaded", namespaceIsLoaded, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot namespaceSlots[] = {
    {Py_tp_dealloc, asSlot(NamespaceObject::deallocate)},
    {Py_tp_methods, namespaceFunctions},
    {Py_tp_getset, namespaceProperties},
    {0, nullptr},
};

PyType_Spec namespaceSpec = {"vantrace._core.NamespaceHandle", sizeof(NamespaceObject), 0,
                             Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION,
                             namespaceSlots};

std::string nameArgument(PyObject* name) {
    if (!PyUnicode_Check(name))
        raise(PyExc_TypeError, "a name is a str, got %s", Py_TYPE(name)->tp_name);
    Ref owner;
    return std::string(utf8Of(name, owner));
}

}  // namespace

void addPlugins(PyObject* module) {
    pluginType = Ref::take(PyType_FromSpec(&pluginSpec)).release();
    namespaceType = Ref::take(PyType_FromSpec(&namespaceSpec)).release();
    check(PyModule_AddObjectRef(module, "Plugin", pluginType));
    check(PyModule_AddObjectRef(module, "NamespaceHandle", namespaceType));
}

PyObject* loadPlugin(PyObject*, PyObject* path) {
    return guarded([&] {
        PyObject* bytes = nullptr;
        if (!PyUnicode_FSConverter(path, &bytes))
            throw PythonError();
        const Ref owner = Ref::steal(bytes);
        const std::filesystem::path file(PyBytes_AS_STRING(bytes));
        zandor::Plugin plugin = withoutLock([&] { return zandor::Plugin::load(file); });
        return PluginObject::make(pluginType, std::move(plugin)).release();
    });
}

PyObject* listRoots(PyObject*, PyObject*) {
    return guarded([] { return listOf(zandor::roots(), newNamespace).release(); });
}

PyObject* findRootNamespace(PyObject*, PyObject* name) {
    return guarded([&] { return newNamespace(zandor::findRoot(nameArgument(name))).release(); });
}

PyObject* resolveMethod(PyObject*, PyObject* fullName) {
    return guarded([&] {
        const std::string name = nameArgument(fullName);
        return newMethod(
                   withoutLock([&] { return zandor::resolve(name, zandor::Door::privateToo); }))
            .release();
    });
}

PyObject* libraryFolder(PyObject*, PyObject*) {
    return guarded([] {
        Dl_info library;
        if (!dladdr(reinterpret_cast<const void*>(&utPrintf), &library) || !library.dli_fname)
            raise(PyExc_RuntimeError, "the host's libraries cannot be found");
        return pathOf(std::filesystem::path(library.dli_fname).parent_path()).release();
    });
}

}  // namespace vantrace
