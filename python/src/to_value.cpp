#include "to_value.hpp"

#include <span>
#include <vector>

#include "context.hpp"
#include "errors.hpp"
#include "text.hpp"

namespace vantrace {

namespace hx = matrix::hx;
using zandor::Value;

namespace {

Value integerValue(PyObject* integer) {
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(integer, &overflow);
    if (overflow == 0)
        return Value::integer(number);
    if (overflow > 0) {
        const unsigned long long large = PyLong_AsUnsignedLongLong(integer);
        if (!PyErr_Occurred())
            return Value::unsignedInteger(large);
        PyErr_Clear();
    }
    return Value::hugeInteger(overflow < 0);
}

bool isBytes(PyObject* object) noexcept {
    return PyBytes_Check(object) || PyByteArray_Check(object) || PyMemoryView_Check(object);
}

bool isSequence(PyObject* object) noexcept {
    return PySequence_Check(object) && !isBytes(object) && !PyUnicode_Check(object);
}

matrix::Array stringArray(std::span<const Ref> texts) {
    matrix::Array strings(hx::hxCreateStringArray(texts.size(), 1));
    for (std::size_t i = 0; i < texts.size(); ++i)
        hx::hxSetString(strings.get(), i, utf16Of(texts[i].get()));
    return strings;
}

matrix::Array numberArray(const Value& value) {
    switch (value.kind()) {
        case Value::Kind::logical:
            return matrix::Array(hx::hxCreateLogicalScalar(value.asLogical()));
        case Value::Kind::integer:
            return matrix::Array(hx::hxCreateDoubleScalar(static_cast<double>(value.asInteger())));
        case Value::Kind::unsignedInteger:
            return matrix::Array(hx::hxCreateUint64Scalar(value.asUnsignedInteger()));
        case Value::Kind::real:
            return matrix::Array(hx::hxCreateDoubleScalar(value.asReal()));
        default:
            return nullptr;
    }
}

/// Lists in lists of a call, the outermost one being 0.
constexpr int mostDepth = 100;

std::optional<Value> convert(PyObject* object, int depth);

/// An element of a cell array; absent where the object is no host value, which the method that
/// wants text then refuses by its index.
matrix::Array elementArray(PyObject* object, int depth) {
    std::optional<Value> value = convert(object, depth + 1);
    if (!value)
        return nullptr;
    if (value->kind() == Value::Kind::array)
        return std::move(*value).takeArray();
    return numberArray(*value);
}

matrix::Array cellArray(std::span<const Ref> elements, int depth) {
    matrix::Array cell(hx::hxCreateCellMatrix(elements.size(), 1));
    for (std::size_t i = 0; i < elements.size(); ++i)
        hx::hxSetCell(cell.get(), i, matrix::to_zandor(elementArray(elements[i].get(), depth)));
    return cell;
}

std::vector<Ref> elementsOf(PyObject* sequence) {
    const Ref fast = Ref::take(
        intoPython([&] { return PySequence_Fast(sequence, "the sequence cannot be iterated"); }));
    std::vector<Ref> elements;
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(fast.get()); ++i)
        elements.push_back(Ref::share(PySequence_Fast_GET_ITEM(fast.get(), i)));
    return elements;
}

matrix::Array sequenceArray(PyObject* sequence, int depth) {
    if (depth > mostDepth)
        raise(PyExc_RecursionError, "lists of a host call are nested too deep");
    const std::vector<Ref> elements = elementsOf(sequence);
    for (const Ref& element : elements) {
        if (!PyUnicode_Check(element.get()))
            return cellArray(elements, depth);
    }
    return stringArray(elements);
}

matrix::Array contextArray(PyObject* dict) {
    // Making the text of a value may run code that changes the dict: look at a copy of it.
    const Ref items = Ref::take(PyDict_Items(dict));
    std::vector<Ref> texts;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(items.get()); ++i) {
        PyObject* pair = PyList_GET_ITEM(items.get(), i);
        PyObject* key = PyTuple_GET_ITEM(pair, 0);
        if (!PyUnicode_Check(key))
            raise(PyExc_TypeError, "the names of a context must be str, got %s",
                  Py_TYPE(key)->tp_name);
        texts.push_back(Ref::share(key));
        texts.push_back(contextText(PyTuple_GET_ITEM(pair, 1)));
    }
    return stringArray(texts);
}

/// The value by a conversion slot of the object's type; none where that refuses.
std::optional<Value> byNumberSlot(PyObject* object) {
    const PyNumberMethods* number = Py_TYPE(object)->tp_as_number;
    if (!number || PyComplex_Check(object))
        return std::nullopt;
    Ref converted;
    if (number->nb_index) {
        converted = Ref::steal(intoPython([&] { return PyNumber_Index(object); }));
        if (converted)
            return integerValue(converted.get());
    } else if (number->nb_float) {
        converted = Ref::steal(intoPython([&] { return PyNumber_Float(object); }));
        if (converted)
            return Value::real(PyFloat_AS_DOUBLE(converted.get()));
    }
    if (PyErr_Occurred() && !PyErr_ExceptionMatches(PyExc_TypeError))
        throw PythonError();
    PyErr_Clear();
    return std::nullopt;
}

std::optional<Value> convert(PyObject* object, int depth) {
    if (PyUnicode_Check(object))
        return Value::array(characterArrayOf(object));
    if (object == Py_None)
        return Value();
    if (PyBool_Check(object))
        return Value::logical(object == Py_True);
    if (PyLong_Check(object))
        return integerValue(object);
    if (PyFloat_Check(object))
        return Value::real(PyFloat_AS_DOUBLE(object));
    if (PyDict_Check(object))
        return Value::array(contextArray(object));
    if (isSequence(object))
        return Value::array(sequenceArray(object, depth));
    return byNumberSlot(object);
}

}  // namespace

std::optional<Value> toValue(PyObject* object) {
    return convert(object, 0);
}

Ref contextText(PyObject* value) {
    if (PyUnicode_CheckExact(value))
        return Ref::share(value);
    instrument::ContextValue number;
    if (asContextNumber(value, number))
        return strOf(instrument::toText(number));
    return Ref::take(intoPython([&] { return PyObject_Str(value); }));
}

}  // namespace vantrace
