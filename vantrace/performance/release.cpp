#include "vantrace/performance/release.hpp"

#include <memory>
#include <new>

#include "zandor/performance/xml.hpp"
#include "zandor/runtime/path.hpp"

namespace vantrace {

namespace {

using tq::xmlutils::LibXML2Utils;

struct NameReleaser {
    void operator()(xmlChar* name) const noexcept { xmlFree(name); }
};
using Name = std::unique_ptr<xmlChar, NameReleaser>;

fl::filesystem::basic_path nativePath(const fl::ustring& path) {
    if (path.empty())
        return {};
    return fl::filesystem::basic_path(fl::filesystem::detail::make_native_form(path, true));
}

xmlNode* childElement(xmlNode* parent, const xmlChar* name) {
    for (xmlNode* child = parent->children; child; child = child->next)
        if (child->type == XML_ELEMENT_NODE && xmlStrcmp(child->name, name) == 0)
            return child;
    return nullptr;
}

}  // namespace

fl::ustring releaseInXmlFile(const fl::ustring& path) {
    const Name name(xmlCharStrdup("release"));
    if (!name)
        throw std::bad_alloc();
    const auto document = LibXML2Utils::readDOMDocumentFromFile(nativePath(path));
    xmlNode* release = childElement(xmlDocGetRootElement(document.get()), name.get());
    return release ? LibXML2Utils::getElemTextValue(document.get(), release) : fl::ustring();
}

}  // namespace vantrace
