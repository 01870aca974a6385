// A strict reader of JSON for tests: throws at what a reader might refuse, keeps numbers as they
// stand.
#pragma once

#include <cctype>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace instrument::test_support {

struct JsonMember;

struct Json {
    enum class Kind : std::uint8_t { null, logical, number, text, list, object };
    Kind kind = Kind::null;
    std::string text;  // a text's characters, a number's digits, "true" or "false"
    std::vector<Json> elements;
    std::vector<JsonMember> members;

    const Json* find(std::string_view name) const;
    bool has(std::string_view name) const { return find(name) != nullptr; }
    const Json& operator[](std::string_view name) const {
        if (const Json* value = find(name))
            return *value;
        throw std::runtime_error("no member " + std::string(name));
    }
    double number() const { return std::stod(text); }
    /// A time in microseconds with three decimals as nanoseconds.
    std::int64_t nanoseconds() const {
        if (text.size() < 5 || text[text.size() - 4] != '.')
            throw std::runtime_error("no three decimals: " + text);
        std::string digits = text;
        digits.erase(digits.size() - 4, 1);
        return std::stoll(digits);
    }
};

struct JsonMember {
    std::string name;
    Json value;
};

inline const Json* Json::find(std::string_view name) const {
    for (const JsonMember& member : members)
        if (member.name == name)
            return &member.value;
    return nullptr;
}

class JsonReader {
  public:
    static Json read(std::string_view text) {
        JsonReader reader(text);
        Json value = reader.value();
        reader.space();
        if (!reader.rest_.empty())
            reader.fail("text behind the end");
        return value;
    }

  private:
    explicit JsonReader(std::string_view text) : rest_(text), whole_(text.size()) {}

    [[noreturn]] void fail(const std::string& what) const {
        throw std::runtime_error(what + " at " + std::to_string(whole_ - rest_.size()));
    }
    void space() {
        while (!rest_.empty() && std::string_view(" \n\r\t").find(rest_[0]) != rest_.npos)
            rest_.remove_prefix(1);
    }
    bool take(char character) {
        space();
        if (rest_.empty() || rest_[0] != character)
            return false;
        rest_.remove_prefix(1);
        return true;
    }
    void expect(char character) {
        if (!take(character))
            fail(std::string("no ") + character);
    }

    Json value() {
        space();
        if (rest_.empty())
            fail("no value");
        switch (rest_[0]) {
            case '{':
                return object();
            case '[':
                return list();
            case '"':
                return {Json::Kind::text, string(), {}, {}};
            case 't':
                return word("true", Json::Kind::logical);
            case 'f':
                return word("false", Json::Kind::logical);
            case 'n':
                return word("null", Json::Kind::null);
            default:
                return number();
        }
    }

    Json word(std::string_view expected, Json::Kind kind) {
        if (!rest_.starts_with(expected))
            fail("unknown word");
        rest_.remove_prefix(expected.size());
        return {kind, std::string(expected), {}, {}};
    }

    Json object() {
        Json object{Json::Kind::object, {}, {}, {}};
        expect('{');
        while (!take('}')) {
            if (!object.members.empty())
                expect(',');
            space();
            std::string name = string();
            if (object.has(name))
                fail("member " + name + " twice");
            expect(':');
            object.members.push_back({std::move(name), value()});
        }
        return object;
    }

    Json list() {
        Json list{Json::Kind::list, {}, {}, {}};
        expect('[');
        while (!take(']')) {
            if (!list.elements.empty())
                expect(',');
            list.elements.push_back(value());
        }
        return list;
    }

    std::size_t digits(std::size_t at) const {
        const std::size_t begin = at;
        while (at < rest_.size() && std::isdigit(static_cast<unsigned char>(rest_[at])))
            ++at;
        if (at == begin)
            fail("no digits");
        return at;
    }

    Json number() {
        std::size_t end = digits(rest_[0] == '-');
        if (rest_[rest_[0] == '-'] == '0' && end > std::size_t{1} + (rest_[0] == '-'))
            fail("a zero before digits");
        if (end < rest_.size() && rest_[end] == '.')
            end = digits(end + 1);
        if (end < rest_.size() && (rest_[end] == 'e' || rest_[end] == 'E')) {
            ++end;
            end = digits(end + (rest_[end] == '-' || rest_[end] == '+'));
        }
        Json number{Json::Kind::number, std::string(rest_.substr(0, end)), {}, {}};
        rest_.remove_prefix(end);
        return number;
    }

    std::string string() {
        expect('"');
        std::string text;
        while (!rest_.empty() && rest_[0] != '"') {
            if (static_cast<unsigned char>(rest_[0]) < 0x20)
                fail("a control character");
            if (rest_[0] == '\\') {
                text += escaped();
            } else {
                text += rest_[0];
                rest_.remove_prefix(1);
            }
        }
        expect('"');
        return text;
    }

    char escaped() {
        if (rest_.size() < 2)
            fail("half an escape");
        const char kind = rest_[1];
        rest_.remove_prefix(2);
        constexpr std::string_view kinds = "\"\\/bfnrt";
        constexpr std::string_view characters = "\"\\/\b\f\n\r\t";
        if (const auto at = kinds.find(kind); at != kinds.npos)
            return characters[at];
        if (kind != 'u' || rest_.size() < 4)
            fail("unknown escape");
        const unsigned long code = std::stoul(std::string(rest_.substr(0, 4)), nullptr, 16);
        rest_.remove_prefix(4);
        if (code > 0x7f)
            fail("an escape where UTF-8 would do");
        return static_cast<char>(code);
    }

    std::string_view rest_;
    std::size_t whole_;
};

}  // namespace instrument::test_support
