#include "reports.hpp"

#include "originals.hpp"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace health {

using cpython::Answer;
using cpython::attr;

namespace {

/// One tool's statistics: the seven values of the collector's record, nothing else of it.
Ref tool_stats(const Scope& scope, PyObject* record)
{
    const auto& shape = originals(scope).tool_stats;
    std::array<Ref, 7> held;
    std::array<PyObject*, 7> values{};
    for (std::size_t i = 0; i < held.size(); ++i) {
        held[i] = cpython::item(record, shape.keys()[i]);
        values[i] = held[i].get();
        if (values[i] == nullptr) {
            return {};
        }
    }
    return shape.make(values);
}

/// `report[key] = value`
bool put(const Ref& report, PyObject* key, PyObject* value)
{
    return PyDict_SetItem(report.get(), key, value) == 0;
}

constexpr const char* warning_start = "The process holds ";
constexpr const char* warning_middle = " threads, more than the ";
constexpr const char* warning_end =
    " its pools allow: threads are piling up. A thread that ran the local embedding model keeps a team of"
    " torch threads, as many as KAVRIN_EMBED_THREADS allows (0 leaves torch's own size).";

/// The warning text about plain small numbers, as good as always what they are: written at one go.
Ref warning_about_small(PyObject* counted, PyObject* budget)
{
    constexpr std::size_t most_digits = 20;
    constexpr std::size_t fixed = std::string_view{warning_start}.size() +
                                  std::string_view{warning_middle}.size() +
                                  std::string_view{warning_end}.size();
    std::array<char, fixed + (2 * most_digits)> text{};
    char* end = text.data();
    const auto put_text = [&](std::string_view part) { end = std::ranges::copy(part, end).out; };
    const auto put_number = [&](PyObject* number) {
        end = std::to_chars(end, end + most_digits, cpython::value_of_small(number)).ptr;
    };
    put_text(warning_start);
    put_number(counted);
    put_text(warning_middle);
    put_number(budget);
    put_text(warning_end);
    return Ref::steal(PyUnicode_FromKindAndData(PyUnicode_1BYTE_KIND, text.data(), end - text.data()));
}

/// The same about anything, in the form that an f-string gives it.
Ref warning_about(PyObject* counted, PyObject* budget)
{
    if (cpython::is_small_int(counted) && cpython::is_small_int(budget)) {
        return warning_about_small(counted, budget);
    }
    const Ref threads = cpython::formatted(counted);
    const Ref allowed = threads ? cpython::formatted(budget) : Ref{};
    return allowed ? Ref::steal(PyUnicode_FromFormat("%s%U%s%U%s", warning_start, threads.get(),
                                                     warning_middle, allowed.get(), warning_end))
                   : Ref{};
}

/// `dict(items)`
Ref dict_of(PyObject* items)
{
    return PyDict_CheckExact(items) ? Ref::steal(PyDict_Copy(items))
                                    : cpython::call(reinterpret_cast<PyObject*>(&PyDict_Type), items);
}

}  // namespace

Ref handle_get_tool_performance_stats(const Scope& scope, PyObject* const* /*arguments*/)
{
    const Ref get_collector = scope.global(names::get_timing_collector);
    const Ref collector = get_collector ? cpython::call(get_collector.get()) : Ref{};
    const Ref all_stats = collector ? cpython::call_method(collector.get(), names::get_all_stats) : Ref{};
    const Ref records = all_stats ? Ref::steal(PyObject_GetIter(all_stats.get())) : Ref{};
    const Ref tools = records ? Ref::steal(PyList_New(0)) : Ref{};
    if (!tools) {
        return {};
    }
    while (const Ref record = Ref::steal(PyIter_Next(records.get()))) {
        if (!cpython::append(tools, tool_stats(scope, record.get()))) {
            return {};
        }
    }
    if (PyErr_Occurred() != nullptr) {
        return {};
    }
    Ref answer = Ref::steal(PyDict_New());
    return answer && put(answer, names::tools_list, tools.get()) ? std::move(answer) : Ref{};
}

Ref thread_census_report(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const budget = arguments[0];
    Ref census = Ref::borrow(arguments[1]);
    if (census.get() == Py_None) {
        const Ref take_census = scope.global(names::thread_census);
        census = take_census ? cpython::call(take_census.get()) : Ref{};
    }
    const Ref os_threads = census ? attr(census.get(), names::os_threads) : Ref{};
    const Ref python_total = os_threads ? attr(census.get(), names::python_total) : Ref{};
    const Ref python_threads = python_total ? attr(census.get(), names::python_threads) : Ref{};
    const Ref by_name = python_threads ? dict_of(python_threads.get()) : Ref{};
    Ref report = by_name ? Ref::steal(PyDict_New()) : Ref{};
    if (!report) {
        return {};
    }
    const bool from_os = os_threads.get() != Py_None;
    if ((from_os && !put(report, names::os, os_threads.get())) ||
        !put(report, names::python, python_total.get()) ||
        !put(report, names::python_by_name, by_name.get()) || !put(report, names::budget, budget)) {
        return {};
    }
    PyObject* const counted = from_os ? os_threads.get() : python_total.get();
    switch (cpython::is_greater(counted, budget)) {
    case Answer::failed:
        return {};
    case Answer::no:
        break;
    case Answer::yes:
        const Ref warning = warning_about(counted, budget);
        if (!warning || !put(report, names::warning, warning.get())) {
            return {};
        }
    }
    return report;
}

}  // namespace health
