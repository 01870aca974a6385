// Calls the published methods in any order with any values, and holds what they give and leave
// against a model.
//
// Values go through the host's own call or, in the shape that the method declares, straight into
// its cells. Libraries and files come from fixed lists, and nothing waits: the clock is injected.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/host_values.hpp"
#include "fuzz/injected_clock.hpp"
#include "fuzz/method_table.hpp"
#include "fuzz/seeds.hpp"
#include "fuzz/understood_call.hpp"
#include "fuzz/wrong_rows.hpp"
#include "vantrace/instrument/method_tables.hpp"
#include "vantrace/module/entry.hpp"
#include "vantrace/performance/method_tables.hpp"
#include "zandor/instrument/controls.hpp"
#include "zandor/runtime/console.hpp"
#include "zandor/runtime/text.hpp"

namespace {

using namespace fuzzing;

struct Published {
    std::string name;
    zandor::Method method;
    std::unique_ptr<kobs::COSMethodInfo> cells;  ///< the same, without the host's call
};

/// The folder that the methods' files go to, for the life of the process.
const std::filesystem::path& folder() {
    static const std::filesystem::path made = [] {
        std::string name = std::filesystem::temp_directory_path() / "fuzz-XXXXXX";
        if (!mkdtemp(name.data()))
            std::abort();
        for (const char* variable : {"XDG_STATE_HOME", "XDG_RUNTIME_DIR"})
            setenv(variable, name.c_str(), 1);
        std::ofstream(name + "/release.xml") << "<r><release>1 &amp; 2</release></r>";
        return std::filesystem::path(name);
    }();
    return made;
}

void addAll(const vantrace::MethodTable& table, const std::string& prefix,
            std::vector<Published>& all) {
    for (const vantrace::MethodRow& row : table) {
        const std::string name = prefix + row.name;
        all.push_back({name, zandor::resolve("performance." + name, zandor::Door::privateToo),
                       std::unique_ptr<kobs::COSMethodInfo>(vantrace::createMethod(row, {}))});
    }
}

const std::vector<Published>& published() {
    static const std::vector<Published> made = [] {
        folder();
        zandor::setConsoleSink(
            [](const char*, std::size_t length) noexcept { return static_cast<int>(length); });
        ZDInitialize_vantrace();
        std::vector<Published> all;
        addAll(vantrace::utilsMethods, "utils.", all);
        addAll(vantrace::cooperativeTaskManagerMethods, "cooperativeTaskManager.", all);
        addAll(vantrace::productStatsMethods, "productStats.", all);
        addAll(vantrace::instrumentMethods, "instrument.", all);
        addAll(vantrace::instrumentsMethods, "instrument.instruments.", all);
        addAll(vantrace::controlsMethods, "instrument.controls.", all);
        addAll(vantrace::recorderMethods, "instrument.recorder.", all);
        addAll(vantrace::profilerMethods, "instrument.profiler.", all);
        addAll(vantrace::counterMethods, "instrument.counter.", all);
        addAll(vantrace::externalEventsAggregatorMethods, "instrument.externalEventsAggregator.",
               all);
        addAll(vantrace::loggerMethods, "instrument.logger.", all);
        return all;
    }();
    return made;
}

void callByName(const std::string& name) {
    zandor::resolve("performance." + name)();
}

void level(Performance::Pauseable& pauseable) {
    while (pauseable.pauseDepth() != 0)
        pauseable.pauseDepth() > 0 ? pauseable.resume() : pauseable.pause();
}

void emptyEverything() {
    for (const char* name :
         {"recorder", "profiler", "counter", "logger", "externalEventsAggregator"})
        callByName(std::string("instrument.") + name + ".stop");
    callByName("instrument.recorder.clearAllEventData");
    callByName("instrument.counter.resetAllEventCounts");
    callByName("instrument.controls.disableAll");
    callByName("cooperativeTaskManager.removeAllTasks");
    manager::setLoggingEnabled(false);
    level(*manager::instance());
    level(*manager::ppe());
}

constexpr std::u16string_view libraries[] = {u"libm.so.6", u"libc.so.6", u"libnosuch.so", u""};

bool loadsLibraries(const std::string& name) {
    return name.find("oadLibrar") != std::string::npos;
}

/// Calls of one run, with what was learned from the calls before.
class Run {
  public:
    Run(FuzzedDataProvider& input, MethodsModel& model) : input_(input), model_(model) {}

    void callAny() {
        const auto& all = published();
        const Published& method =
            all[input_.ConsumeIntegralInRange<std::size_t>(0, all.size() - 1)];
        const auto& inputs = method.method.description().inputs;
        std::vector<Value> values;
        for (const std::string& type : inputs)
            values.push_back(valueFor(method.name, type));
        if (method.name.ends_with("stopEvent") && input_.ConsumeBool())
            giveKnownId(values);
        if (!isBounded(method.name, values))
            return;
        call(method, values);
        checkState();
    }

  private:
    Value valueFor(const std::string& method, const std::string& type) {
        const bool fits = input_.ConsumeIntegralInRange(0, 15) != 0;
        if (type == "KobsFactoryString scalar")
            return input_.ConsumeBool() ? Value::text((folder() / "release.xml").string())
                                        : Value::text((folder() / "none").string());
        if (!fits && !loadsLibraries(method))
            return anyValue(input_);
        if (loadsLibraries(method))
            return libraryFor(type);
        if (type == "char") {
            if (input_.ConsumeIntegralInRange(0, 3) != 0)
                text_ = anyText(input_);
            return Value::array(charArray(text_));
        }
        if (type == "KobsFactoryString vector")
            return Value::array(anyTexts(input_));
        if (type == "logical scalar")
            return Value::logical(input_.ConsumeBool());
        if (type == "int32 scalar")
            return Value::integer(input_.ConsumeIntegral<std::int32_t>());
        if (type == "uint64 scalar")
            return Value::unsignedInteger(input_.PickValueInArray<std::uint64_t>(
                {0, 1, 2, 3, 500, 1'000'000'000'000, ~std::uint64_t{0}}));
        return Value::real(
            input_.PickValueInArray<double>({0.0, 1e-9, -1.0, 0.01, 1e300, -0.0, std::nan("")}));
    }

    Value libraryFor(const std::string& type) {
        const std::u16string library(input_.PickValueInArray(libraries));
        if (type == "char")
            return Value::array(charArray(library));
        matrix::Array strings(hx::hxCreateStringArray(2, 1));
        hx::hxSetString(strings.get(), 0, library);
        return Value::array(std::move(strings));
    }

    void giveKnownId(std::vector<Value>& values) {
        if (ids_.empty())
            return;
        const Id id = ids_[input_.ConsumeIntegralInRange<std::size_t>(0, ids_.size() - 1)];
        values[2] = Value::unsignedInteger(id.first);
        values[3] = Value::unsignedInteger(id.second);
    }

    /// Neither busy for long nor likely to guess an id that comes later.
    static bool isBounded(const std::string& name, const std::vector<Value>& values) {
        using Kind = Value::Kind;
        if (name.ends_with("queueSleepTask"))
            return values[0].kind() != Kind::integer || values[0].asInteger() <= 50;
        if (name.ends_with("addSomethingToInstrumentation")) {
            const Kind kind = values[0].kind();
            if (kind == Kind::integer || kind == Kind::unsignedInteger)
                return values[0].isNegative() || values[0].asUnsignedInteger() == 0;
            return kind != Kind::real || !(values[0].asReal() > 0.01 && values[0].asReal() < 1e12);
        }
        return true;
    }

    void call(const Published& method, std::vector<Value>& values) {
        std::optional<Call> meant = understood(method.method.description().inputs, values);
        const std::size_t arrays = matrix::liveArrayCount();
        bool refused = false;
        bool takesResult = true;
        {
            Value result;
            try {
                if (meant && input_.ConsumeIntegralInRange(0, 3) == 0)
                    takesResult = invoke(method, values, result);
                else
                    result = method.method.call(values);
            } catch (const std::exception&) {
                refused = true;
            }
            if (meant)
                applyEffect(method.name, *meant, takesResult && !refused ? &result : nullptr,
                            refused);
            else
                expect(refused, "values that the method cannot take");
            if (meant && meant->list.size() == 2) {
                ruled_ = meant->text;
                rule_ = meant->list;
            }
            if (!refused && takesResult && method.name.ends_with("startEvent"))
                learnId(result);
        }
        expect(matrix::liveArrayCount() == arrays, "as many arrays as before the call");
    }

    void applyEffect(const std::string& name, Call& meant, const Value* result, bool refused) {
        const bool givesValue = result && result->kind() != Value::Kind::none;
        meant.result = givesValue ? result : nullptr;
        if (name == "utils.getReleseFromXMLFile")
            return;
        const auto effect = effects().find(name);
        const bool wanted = effect != effects().end() && effect->second(model_, meant);
        const bool known = effect != effects().end();
        if (!known && meant.list.size() % 2 != 0)
            return;  // refused or not, by the method
        expect(refused == wanted, "whether the method refuses the call");
    }

    void learnId(const Value& result) {
        const auto number = [&](const char* field) {
            return *static_cast<const std::uint64_t*>(
                hx::hxGetData(hx::hxGetField(result.asArray(), 0, field)));
        };
        ids_.push_back({number("sourceId"), number("serialId")});
    }

    /// Straight into the cells. False when no result was asked for.
    bool invoke(const Published& method, const std::vector<Value>& values, Value& result) {
        std::array<kobs::Cell, 4> cells{};
        const auto& inputs = method.method.description().inputs;
        for (std::size_t i = 0; i < values.size(); ++i)
            cells[i] = cellOf(inputs[i], values[i]);
        std::int32_t count = input_.PickValueInArray<std::int32_t>({0, 1, 2, -1});
        const bool asked = count >= 0;
        kobs::Cell given = 0;
        method.cells->invoke(nullptr, &count, &given, static_cast<std::int32_t>(values.size()),
                             cells.data());
        const std::string& type = method.method.description().outputs[0];
        if (type == "logical scalar")
            result = Value::logical(given != 0);
        else if (type == "int32 scalar")
            result = Value::integer(static_cast<std::int64_t>(given));
        else if (type != "void" && type != "uint64 scalar")
            result = Value::array(matrix::Array(std::bit_cast<hxArray*>(given)));
        return asked;
    }

    static kobs::Cell cellOf(const std::string& type, const Value& value) {
        if (value.kind() == Value::Kind::array)
            return std::bit_cast<kobs::Cell>(value.asArray());
        if (value.kind() == Value::Kind::logical)
            return value.asLogical();
        if (value.kind() == Value::Kind::none)
            return 0;
        if (type == "double scalar") {
            const double number = value.kind() == Value::Kind::real ? value.asReal()
                                  : value.isNegative()
                                      ? static_cast<double>(value.asInteger())
                                      : static_cast<double>(value.asUnsignedInteger());
            return std::bit_cast<kobs::Cell>(number);
        }
        return value.isNegative() ? std::bit_cast<kobs::Cell>(value.asInteger())
                                  : value.asUnsignedInteger();
    }

    /// What is not read by the call itself.
    void checkState() {
        const std::string name = fl::i18n::ustring_to_utf8(input_.PickValueInArray(words));
        const std::string value = fl::i18n::ustring_to_utf8(input_.PickValueInArray(words));
        const instrument::ContextSet set{{"n", value}};
        using instrument::controls;
        expect(controls.isEnabled(name) == model_.controls.isOn(name), "a switch");
        expect(controls.isEnabled(name, set) == model_.controls.isOn(name, {{"n", value}}),
               "a rule");
        if (!rule_.empty()) {
            const Context context{{rule_[0], rule_[1]}};
            instrument::ContextSet latest;
            latest.insert({rule_[0], rule_[1]});
            expect(controls.isEnabled(ruled_, latest) == model_.controls.isOn(ruled_, context),
                   "the latest rule");
        }
        expect(manager::instance()->getNumPendingTasks(true) ==
                   static_cast<int>(model_.tasks.pending.size()),
               "pending tasks");
        expect(manager::instance()->pauseDepth() == model_.tasks.depth, "the depth of pauses");
        expect(manager::ppe()->pauseDepth() == model_.tasks.ppeDepth, "the depth of PPE pauses");
    }

    FuzzedDataProvider& input_;
    MethodsModel& model_;
    std::vector<Id> ids_;
    std::u16string text_;  ///< of a call before: calls of the same name meet
    std::string ruled_;    ///< the name of the latest call that had one entry
    Strings rule_;         ///< and that entry
};

}  // namespace

void fuzzing::writeSeeds(const std::filesystem::path& folder) {
    writeNoise(folder, 8, 1500);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::set<std::string> registered;
    published();
    emptyEverything();
    MethodsModel model;
    model.controls.registered.swap(registered);
    FuzzedDataProvider input(data, size);
    Run run(input, model);
    for (int calls = 0; calls < 80 && input.remaining_bytes() > 0; ++calls)
        run.callAny();
    registered.swap(model.controls.registered);
    return 0;
}

int fuzzing::checkModel() {
    const std::filesystem::path shared = folder();
    const int status = checkByWrongRows(LLVMFuzzerTestOneInput);
    std::filesystem::remove_all(shared);
    return status;
}
