// Reads XML files of any bytes, and the text of their root's first "release". A document that is
// read gives the same release again when that is written into another.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz/seeds.hpp"
#include "zandor/performance/xml.hpp"
#include "zandor/runtime/path.hpp"
#include "zandor/runtime/text.hpp"

namespace {

using tq::xmlutils::LibXML2Utils;

std::string fileWith(std::string_view content) {
    static const int memory = memfd_create("xml", MFD_CLOEXEC);
    const auto size = static_cast<ssize_t>(content.size());
    if (ftruncate(memory, 0) != 0 || pwrite(memory, content.data(), content.size(), 0) != size)
        std::abort();
    return "/proc/self/fd/" + std::to_string(memory);
}

/// Nothing for what is no document or has no release.
std::optional<std::string> releaseIn(std::string_view content) {
    const fl::filesystem::basic_path path(fl::i18n::utf8_to_ustring(fileWith(content)));
    LibXML2Utils::DOMDocument document;
    try {
        document = LibXML2Utils::readDOMDocumentFromFile(path);
    } catch (const std::runtime_error&) {
        return {};
    }
    for (xmlNode* child = xmlDocGetRootElement(document.get())->children; child;
         child = child->next)
        if (child->type == XML_ELEMENT_NODE &&
            std::strcmp(reinterpret_cast<const char*>(child->name), "release") == 0)
            return fl::i18n::ustring_to_utf8(LibXML2Utils::getElemTextValue(document.get(), child));
    return {};
}

std::string escaped(std::string_view text) {
    std::string safe;
    for (const char character : text)
        switch (character) {
            case '<':
                safe += "&lt;";
                break;
            case '&':
                safe += "&amp;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '\r':
                safe += "&#13;";
                break;
            default:
                safe += character;
        }
    return safe;
}

}  // namespace

void fuzzing::writeSeeds(const std::filesystem::path& folder) {
    const std::string_view documents[] = {
        "<r><release>9.1</release></r>",
        "<?xml version='1.0' encoding='ISO-8859-1'?><r><release>\xe9</release></r>",
        "<!DOCTYPE r [<!ENTITY e 'x'>]><r><a/><release>&e;<b>y</b><![CDATA[<z>]]></release></r>",
        "<r><a><release>no</release></a></r>",
        "<!DOCTYPE r SYSTEM 'no.dtd'><r><release/></r>",
    };
    std::size_t number = 0;
    for (const std::string_view document : documents)
        writeSeed(folder, number++, document);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view content(reinterpret_cast<const char*>(data), size);
    const std::optional<std::string> release = releaseIn(content);
    if (!release)
        return 0;
    if (releaseIn("<r><other/><release>" + escaped(*release) + "</release></r>") != *release) {
        std::fprintf(stderr, "a release that is read is not written back\n");
        std::abort();
    }
    return 0;
}
