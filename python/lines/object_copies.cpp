#include "object_copies.hpp"

#include <cstdint>

#include "own_memory.hpp"

namespace vantrace {

namespace {

constexpr Py_ssize_t longestText = 4096;
constexpr Py_ssize_t mostBytes = 4 << 20;

void appendUtf8(std::string& text, std::uint32_t character) {
    const auto put = [&](std::uint32_t byte) { text.push_back(static_cast<char>(byte)); };
    const auto putRest = [&](unsigned shift) { put(0x80 | (character >> shift & 0x3f)); };
    if (character >= 0xdc80 && character <= 0xdcff) {
        put(character & 0xff);  // a byte of a file's name that is not UTF-8, as Python keeps it
    } else if (character < 0x80) {
        put(character);
    } else if (character < 0x800) {
        put(0xc0 | character >> 6);
        putRest(0);
    } else if (character < 0x10000) {
        put(0xe0 | character >> 12);
        putRest(6);
        putRest(0);
    } else {
        put(0xf0 | (character >> 18 & 7));
        putRest(12);
        putRest(6);
        putRest(0);
    }
}

template <class Character>
std::optional<std::string> copyCharacters(const void* address, Py_ssize_t length) {
    std::vector<Character> characters(static_cast<std::size_t>(length));
    if (!readOwnMemory(address, characters.data(), characters.size() * sizeof(Character)))
        return std::nullopt;
    std::string text;
    for (const Character character : characters)
        appendUtf8(text, character);
    return text;
}

}  // namespace

std::optional<std::string> copyText(const PyObject* str) {
    const auto head = valueAt<PyASCIIObject>(str);
    if (!head || head->ob_base.ob_type != &PyUnicode_Type || !head->state.compact ||
        head->length < 0 || head->length > longestText)
        return std::nullopt;
    const std::size_t size =
        head->state.ascii ? sizeof(PyASCIIObject) : sizeof(PyCompactUnicodeObject);
    const void* characters = reinterpret_cast<const std::byte*>(str) + size;
    switch (head->state.kind) {
        case PyUnicode_1BYTE_KIND:
            return copyCharacters<Py_UCS1>(characters, head->length);
        case PyUnicode_2BYTE_KIND:
            return copyCharacters<Py_UCS2>(characters, head->length);
        case PyUnicode_4BYTE_KIND:
            return copyCharacters<Py_UCS4>(characters, head->length);
        default:
            return std::nullopt;
    }
}

std::optional<std::vector<std::byte>> copyBytes(const PyObject* bytes) {
    const auto head = valueAt<PyVarObject>(bytes);
    if (!head || head->ob_base.ob_type != &PyBytes_Type || head->ob_size < 0 ||
        head->ob_size > mostBytes)
        return std::nullopt;
    std::vector<std::byte> content(static_cast<std::size_t>(head->ob_size));
    const auto* data = reinterpret_cast<const std::byte*>(bytes) + offsetof(PyBytesObject, ob_sval);
    return readOwnMemory(data, content.data(), content.size()) ? std::optional(std::move(content))
                                                               : std::nullopt;
}

}  // namespace vantrace
