#include "zandor/performance/xml.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tq::xmlutils {
namespace {

using ::testing::HasSubstr;

class Xml : public ::testing::Test {
  protected:
    Xml()
        : folder_(std::filesystem::temp_directory_path() / ("xml " + std::to_string(::getpid()))) {
        std::filesystem::create_directory(folder_);
    }
    ~Xml() override { std::filesystem::remove_all(folder_); }

    std::filesystem::path file(const std::string& content, const std::string& name = "a.xml") {
        std::ofstream(folder_ / name, std::ios::binary) << content;
        return folder_ / name;
    }

    static LibXML2Utils::DOMDocument read(const std::filesystem::path& path) {
        return LibXML2Utils::readDOMDocumentFromFile(
            fl::filesystem::basic_path(fl::i18n::utf8_to_ustring(path.string())));
    }

    static fl::ustring rootText(const std::filesystem::path& path) {
        const auto document = read(path);
        return LibXML2Utils::getElemTextValue(document.get(), xmlDocGetRootElement(document.get()));
    }

    static std::string errorOf(const std::filesystem::path& path) {
        try {
            read(path);
        } catch (const std::exception& error) {
            return error.what();
        }
        return "no error";
    }

    const std::filesystem::path folder_;
};

TEST_F(Xml, GivesTheTextOfAllDescendants) {
    EXPECT_EQ(rootText(file("<r>a<b>b<c>c</c></b><![CDATA[<d>]]>&amp;e<!-- f --></r>")),
              u"abc<d>&e");
}

TEST_F(Xml, ReplacesInternalEntities) {
    EXPECT_EQ(rootText(file("<!DOCTYPE r [<!ENTITY e 'text'>]><r>&e;</r>")), u"text");
}

TEST_F(Xml, ReadsTheEncodingThatTheFileDeclares) {
    EXPECT_EQ(rootText(file("<?xml version='1.0' encoding='ISO-8859-1'?><r>\xE9</r>")), u"é");
}

TEST_F(Xml, ReadsAPathOfAnyText) {
    EXPECT_EQ(rootText(file("<r>😀</r>", "päth 😀.xml")), u"😀");
}

TEST_F(Xml, SaysWhichFileCannotBeRead) {
    const auto missing = folder_ / "no.xml";
    EXPECT_THROW(read(missing), std::system_error);
    EXPECT_THAT(errorOf(missing), HasSubstr("'" + missing.string() + "'"));
    EXPECT_THROW(read(folder_), std::system_error);
    EXPECT_THROW(read(""), std::system_error);
}

TEST_F(Xml, SaysWhereADocumentIsMalformed) {
    EXPECT_THROW(read(file("<r>\n<a></r>")), std::runtime_error);
    EXPECT_THAT(errorOf(file("<r>\n<a></r>")), HasSubstr("line 2: "));
}

TEST_F(Xml, RefusesADocumentWithoutRoot) {
    for (const char* content : {"", "<!-- only this -->", "<?xml version='1.0'?>"})
        EXPECT_THROW(read(file(content)), std::runtime_error) << content;
}

TEST_F(Xml, RefusesAFileOverTheLimit) {
    const auto path = file("<r>");
    std::filesystem::resize_file(path, LibXML2Utils::maxFileSize + 1);
    EXPECT_THAT(errorOf(path), HasSubstr("larger than 64 MiB"));
}

TEST_F(Xml, RefusesEntitiesThatMultiply) {
    std::string bomb = "<!DOCTYPE r [<!ENTITY e0 'boom boom boom'>";
    for (int i = 1; i < 20; ++i) {
        bomb += "<!ENTITY e" + std::to_string(i) + " '";
        for (int copies = 0; copies < 10; ++copies)
            bomb += "&e" + std::to_string(i - 1) + ";";
        bomb += "'>";
    }
    EXPECT_THROW(read(file(bomb + "]><r>&e19;</r>")), std::runtime_error);
}

TEST_F(Xml, RefusesAMillionNestedElements) {
    std::string deep;
    for (int i = 0; i < 1'000'000; ++i)
        deep += "<a>";
    EXPECT_THROW(read(file(deep)), std::runtime_error);
}

TEST_F(Xml, DoesNotReadExternalEntities) {
    const auto secret = file("secret", "secret.txt");
    const auto path = file("<!DOCTYPE r [<!ENTITY e SYSTEM '" + secret.string() + "'>]><r>&e;</r>");
    EXPECT_THROW(read(path), std::runtime_error);
    const auto unused =
        file("<!DOCTYPE r SYSTEM 'no.dtd' [<!ENTITY e SYSTEM 'secret.txt'>]><r>a</r>");
    EXPECT_EQ(rootText(unused), u"a");
}

}  // namespace
}  // namespace tq::xmlutils
