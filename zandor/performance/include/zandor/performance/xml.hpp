// Reading XML files.
//
// The parser reaches no network and no external entity: one that is declared counts as undeclared,
// so a reference to it is an error. Files are at most 64 MiB; entities that multiply and nesting
// beyond the parser's limit are errors. From any thread, each document on one at a time.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <memory>

#include "zandor/performance/export.hpp"
#include "zandor/runtime/path.hpp"
#include "zandor/runtime/text.hpp"

namespace tq::xmlutils {

class ZANDOR_PERFORMANCE_API LibXML2Utils {
  public:
    static constexpr std::size_t maxFileSize = 64u << 20;

    struct DOMDocumentReleaser {
        void operator()(xmlDoc* document) const noexcept { xmlFreeDoc(document); }
    };
    using DOMDocument = std::unique_ptr<xmlDoc, DOMDocumentReleaser>;

    /// The document in a file; it has a root element. Throws std::system_error for a file that
    /// cannot be read, and std::runtime_error with the parser's words and the line for one that is
    /// no such document.
    static DOMDocument readDOMDocumentFromFile(const fl::filesystem::basic_path& path);

    /// The text of an element and of all its descendants.
    static fl::ustring getElemTextValue(xmlDoc* document, xmlNode* element);
};

}  // namespace tq::xmlutils
