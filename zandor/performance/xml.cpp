#include "zandor/performance/xml.hpp"

#include <fcntl.h>
#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tq::xmlutils {

namespace {

[[noreturn]] void throwCannotRead(const std::string& path, int error) {
    throw std::system_error(error, std::generic_category(), "cannot read XML file '" + path + "'");
}

[[noreturn]] void throwBadDocument(const std::string& path, const std::string& why) {
    throw std::runtime_error("cannot read XML file '" + path + "': " + why);
}

class File {
  public:
    explicit File(const std::string& path)
        : path_(path), descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (descriptor_ < 0)
            throwCannotRead(path, errno);
    }
    ~File() { ::close(descriptor_); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /// Everything, a piece at a time, so that a file that grows meets the limit, too.
    std::string readAll() const {
        std::string content;
        char piece[1 << 16];
        for (;;) {
            const ssize_t got = ::read(descriptor_, piece, sizeof piece);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                throwCannotRead(path_, errno);
            if (got == 0)
                return content;
            content.append(piece, static_cast<std::size_t>(got));
            if (content.size() > LibXML2Utils::maxFileSize)
                throwBadDocument(path_, "it is larger than 64 MiB");
        }
    }

  private:
    const std::string& path_;
    const int descriptor_;
};

/// Leaves external entities undeclared.
void declareInternalEntity(void* context, const xmlChar* name, int type, const xmlChar* publicId,
                           const xmlChar* systemId, xmlChar* content) {
    if (type == XML_INTERNAL_GENERAL_ENTITY || type == XML_INTERNAL_PARAMETER_ENTITY)
        xmlSAX2EntityDecl(context, name, type, publicId, systemId, content);
}

std::string parserWords(xmlParserCtxt& context) {
    const xmlError* error = xmlCtxtGetLastError(&context);
    if (!error || !error->message)
        return "it is not an XML document";
    std::string words = error->message;
    while (!words.empty() && words.back() == '\n')
        words.pop_back();
    return "line " + std::to_string(error->line) + ": " + words;
}

/// Without memory the library leaves parts of a document or of a text out, and tells only of an
/// error of the thread.
class MemoryWatch {
  public:
    MemoryWatch() noexcept { xmlResetLastError(); }
    void check() const {
        const xmlError* error = xmlGetLastError();
        if (error && error->code == XML_ERR_NO_MEMORY)
            throw std::bad_alloc();
    }
};

struct ContextReleaser {
    void operator()(xmlParserCtxt* context) const noexcept { xmlFreeParserCtxt(context); }
};

LibXML2Utils::DOMDocument parse(const std::string& path, const std::string& content) {
    const MemoryWatch memory;
    const std::unique_ptr<xmlParserCtxt, ContextReleaser> context(xmlNewParserCtxt());
    if (!context)
        throw std::bad_alloc();
    context->sax->entityDecl = &declareInternalEntity;
    // Entities are replaced while parsing, where the parser watches their growth.
    LibXML2Utils::DOMDocument document(xmlCtxtReadMemory(
        context.get(), content.data(), static_cast<int>(content.size()), path.c_str(), nullptr,
        XML_PARSE_NONET | XML_PARSE_NOENT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    memory.check();
    if (!document || !xmlDocGetRootElement(document.get()))
        throwBadDocument(path, parserWords(*context));
    return document;
}

}  // namespace

LibXML2Utils::DOMDocument LibXML2Utils::readDOMDocumentFromFile(
    const fl::filesystem::basic_path& path) {
    const std::string name = path.utf8();
    return parse(name, File(name).readAll());
}

fl::ustring LibXML2Utils::getElemTextValue(xmlDoc* /*document*/, xmlNode* element) {
    struct TextReleaser {
        void operator()(xmlChar* text) const noexcept { xmlFree(text); }
    };
    const MemoryWatch memory;
    const std::unique_ptr<xmlChar, TextReleaser> text(xmlNodeGetContent(element));
    memory.check();
    if (!text)
        return {};
    return fl::i18n::utf8_to_ustring(reinterpret_cast<const char*>(text.get()));
}

}  // namespace tq::xmlutils
