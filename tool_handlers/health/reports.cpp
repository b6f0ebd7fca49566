#include "reports.hpp"

#include "cpython/containers.hpp"

namespace health {

using cpython::Answer;
using cpython::attr;
using cpython::set_entry;

namespace {

/// One tool's statistics: the seven values of the collector's record, nothing else of it.
Ref tool_stats(PyObject* record, Ref& last)
{
    Ref stats = cpython::dict_like(last);
    for (PyObject* key : std::array<PyObject*, 7>{names::name, names::count, names::avg_ms, names::p95_ms,
                                                  names::min_ms, names::max_ms, names::errors}) {
        if (!stats || !set_entry(stats, key, cpython::item(record, key))) {
            return {};
        }
    }
    last = stats.copy();
    return stats;
}

/// The warning text, an f-string.
Ref warning_about(PyObject* counted, PyObject* budget)
{
    const Ref threads = cpython::formatted(counted);
    const Ref allowed = threads ? cpython::formatted(budget) : Ref{};
    return cpython::joined<5>(
        {names::warning_start, threads, names::warning_middle, allowed, names::warning_end});
}

/// `dict(items)`
Ref copied(PyObject* items)
{
    return PyDict_CheckExact(items) ? Ref::steal(PyDict_Copy(items))
                                    : cpython::call(reinterpret_cast<PyObject*>(&PyDict_Type), items);
}

}  // namespace

Ref handle_get_tool_performance_stats(const Scope& scope, PyObject* const* /*arguments*/)
{
    const Ref collector = cpython::call(scope.global(names::get_timing_collector));
    const Ref all_stats = cpython::call_method(collector, names::get_all_stats);
    const Ref tools = all_stats ? Ref::steal(PyList_New(0)) : Ref{};
    Ref last;
    const bool done = tools && cpython::for_each(all_stats, [&](PyObject* record) {
                          return cpython::append(tools, tool_stats(record, last));
                      });
    return done ? cpython::dict_of(std::array{cpython::Named{names::tools_list, tools}}) : Ref{};
}

Ref thread_census_report(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const budget = arguments[0];
    const Ref census = arguments[1] != Py_None ? Ref::borrow(arguments[1])
                                               : cpython::call(scope.global(names::thread_census));
    const Ref os_threads = attr(census, names::os_threads);
    const Ref python_total = os_threads ? attr(census, names::python_total) : Ref{};
    const Ref python_threads = python_total ? attr(census, names::python_threads) : Ref{};
    const Ref by_name = python_threads ? copied(python_threads.get()) : Ref{};
    Ref report = by_name ? Ref::steal(PyDict_New()) : Ref{};
    if (!report) {
        return {};
    }
    const bool from_os = os_threads.get() != Py_None;
    if ((from_os && !set_entry(report, names::os, os_threads)) ||
        !set_entry(report, names::python, python_total) ||
        !set_entry(report, names::python_by_name, by_name) || !set_entry(report, names::budget, budget)) {
        return {};
    }
    PyObject* const counted = from_os ? os_threads.get() : python_total.get();
    const Answer is_above = cpython::compare_numbers(counted, budget, Py_GT);
    if (is_above == Answer::failed ||
        (is_above == Answer::yes && !set_entry(report, names::warning, warning_about(counted, budget)))) {
        return {};
    }
    return report;
}

}  // namespace health
