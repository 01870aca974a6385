#include "recorded_events.hpp"

#include <cstddef>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "gil.hpp"
#include "text.hpp"
#include "zandor/instrument/counter_point.hpp"
#include "zandor/instrument/recorded_events.hpp"

namespace vantrace {

using instrument::ContextArg;
using instrument::ContextArgs;
using instrument::ContextValue;
using instrument::RecordedItem;

namespace {

/// Items with their contexts: gathered while other threads run, before any object is made.
class Gathered : public instrument::RecordedItemSink {
  public:
    void take(const RecordedItem& item) override {
        ends_.push_back(args_.size() + item.context.size());
        args_.insert(args_.end(), item.context.begin(), item.context.end());
        items_.push_back(item);
    }

    std::size_t size() const noexcept { return items_.size(); }
    const RecordedItem& item(std::size_t i) const noexcept { return items_[i]; }
    ContextArgs contextOf(std::size_t i) const noexcept {
        const std::size_t begin = i == 0 ? 0 : ends_[i - 1];
        return std::span(args_).subspan(begin, ends_[i] - begin);
    }

  private:
    std::vector<RecordedItem> items_;
    std::vector<std::size_t> ends_;
    std::vector<ContextArg> args_;
};

/// Each text once; they stay where they are, so an address tells one.
class Texts {
  public:
    PyObject* of(std::string_view text) {
        Ref& known = known_[text.data()];
        if (!known)
            known = strOf(text);
        return known.get();
    }

  private:
    std::unordered_map<const char*, Ref> known_;
};

Ref objectOf(const ContextValue& value, Texts& texts) {
    switch (value.kind()) {
        case ContextValue::Kind::text:
            return Ref::share(texts.of(value.text()));
        case ContextValue::Kind::signedInteger:
            return Ref::take(PyLong_FromLongLong(value.signedInteger()));
        case ContextValue::Kind::unsignedInteger:
            return Ref::take(PyLong_FromUnsignedLongLong(value.unsignedInteger()));
        case ContextValue::Kind::real:
            return Ref::take(PyFloat_FromDouble(value.real()));
        default:
            return Ref::take(PyBool_FromLong(value.logical()));
    }
}

Ref dictOf(ContextArgs context, bool isCounter, Texts& texts) {
    Ref dict = Ref::take(PyDict_New());
    for (const ContextArg& arg : context) {
        const Ref value = objectOf(arg.value, texts);
        PyObject* name = texts.of(isCounter ? std::string_view("value") : arg.name);
        check(PyDict_SetItem(dict.get(), name, value.get()));
    }
    return dict;
}

std::string_view kindOf(const RecordedItem& item, bool isCounter) noexcept {
    switch (item.kind) {
        case RecordedItem::Kind::event:
            return "event";
        case RecordedItem::Kind::unfinished:
            return "unfinished";
        case RecordedItem::Kind::stop:
            return "stop";
        default:
            return isCounter ? "counter" : "instant";
    }
}

Ref durationOf(const RecordedItem& item) {
    if (item.kind == RecordedItem::Kind::unfinished)
        return Ref::share(Py_None);
    return Ref::take(PyLong_FromLongLong(item.stop - item.start));
}

Ref tupleOf(const RecordedItem& item, ContextArgs context, Texts& texts) {
    const bool isCounter =
        item.kind == RecordedItem::Kind::instant && instrument::counterValueOf(context).has_value();
    const Ref start = Ref::take(PyLong_FromLongLong(item.start));
    const Ref duration = durationOf(item);
    const Ref dict = dictOf(context, isCounter, texts);
    return Ref::take(PyTuple_Pack(6, texts.of(item.name), texts.of(kindOf(item, isCounter)),
                                  start.get(), duration.get(), texts.of(item.source), dict.get()));
}

}  // namespace

Ref listEvents(const instrument::InstrumentRecorder& recorder) {
    Gathered gathered;
    withoutLock([&] { instrument::readRecording(recorder, gathered); });
    Ref list = Ref::take(PyList_New(static_cast<Py_ssize_t>(gathered.size())));
    Texts texts;
    for (std::size_t i = 0; i < gathered.size(); ++i) {
        Ref tuple = tupleOf(gathered.item(i), gathered.contextOf(i), texts);
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), tuple.release());
    }
    return list;
}

}  // namespace vantrace
