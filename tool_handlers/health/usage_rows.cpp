#include "usage_rows.hpp"

#include "cpython/containers.hpp"
#include "stored_formats.hpp"

#include <algorithm>

namespace health {

using cpython::Answer;
using cpython::Scratch;

namespace {

/// `round(usage.total_ms / usage.timed_calls, 2) if usage.timed_calls else None`
Ref mean_ms(const Scope& scope, PyObject* usage)
{
    const UsageClass& records = originals(scope).usage;
    Answer timed = Answer::failed;
    if (const Ref condition = records.get(usage, usage_record::timed_calls)) {
        timed = cpython::truth(condition.get());
    }
    if (timed != Answer::yes) {
        return timed == Answer::no ? cpython::none() : Ref{};
    }
    const Ref total_ms = records.get(usage, usage_record::total_ms);
    const Ref timed_calls = total_ms ? records.get(usage, usage_record::timed_calls) : Ref{};
    const Ref mean = timed_calls ? Ref::steal(PyNumber_TrueDivide(total_ms.get(), timed_calls.get())) : Ref{};
    return mean ? rounded(scope, mean.get(), 2) : Ref{};
}

/// What decides the place of a row among the rows of its tool, when it is all plain.
struct RowRank {
    Ref row;
    Ref action;  // as text
    Ref outcome;
    Ref alias_hit;
    long long calls = 0;
    std::size_t place = 0;  // keeps the order of equals

    /// False when this row needs the general sort. Runs no foreign code: a row is a dictionary of our own making.
    bool read(PyObject* from, std::size_t at)
    {
        Ref count;
        PyDict_GetItemRef(from, names::calls, count.out());
        PyDict_GetItemRef(from, names::action, action.out());
        PyDict_GetItemRef(from, names::outcome, outcome.out());
        PyDict_GetItemRef(from, names::alias_hit, alias_hit.out());
        if (!count || !action || !outcome || !alias_hit) {
            return false;
        }
        if (action.get() == Py_None) {
            action = Ref::borrow(names::none_text);
        }
        row = Ref::borrow(from);
        place = at;
        return cpython::as_number(count.get(), calls) && PyUnicode_CheckExact(action.get()) &&
               PyUnicode_CheckExact(outcome.get()) && PyBool_Check(alias_hit.get());
    }

    [[nodiscard]] bool precedes(const RowRank& other) const
    {
        if (calls != other.calls) {
            return calls > other.calls;
        }
        if (const int order = PyUnicode_Compare(action.get(), other.action.get()); order != 0) {
            return order < 0;
        }
        if (const int order = PyUnicode_Compare(outcome.get(), other.outcome.get()); order != 0) {
            return order < 0;
        }
        return alias_hit.get() != other.alias_hit.get() ? alias_hit.get() == Py_False : place < other.place;
    }
};

/// The key of the general sort: `(-row["calls"], str(row["action"]), row["outcome"], row["alias_hit"])`.
PyObject* rank_of_row(PyObject* /*module*/, PyObject* row)
{
    const Ref calls = cpython::item(row, names::calls);
    const Ref most_first = calls ? Ref::steal(PyNumber_Negative(calls.get())) : Ref{};
    const Ref action = most_first ? cpython::item(row, names::action) : Ref{};
    const Ref text = action ? Ref::steal(PyObject_Str(action.get())) : Ref{};
    const Ref outcome = text ? cpython::item(row, names::outcome) : Ref{};
    const Ref alias_hit = outcome ? cpython::item(row, names::alias_hit) : Ref{};
    return alias_hit ? PyTuple_Pack(4, most_first.get(), text.get(), outcome.get(), alias_hit.get())
                     : nullptr;
}

PyMethodDef rank_of_row_definition{"rank", rank_of_row, METH_O, nullptr};

/// The row of one usage key; asks the host whether such a call is slow by nature.
Ref make_row(const Scope& scope, PyObject* tool_name, const UsageKey& key, PyObject* usage)
{
    const auto& [tool, action, outcome, alias_hit] = key;
    const Ref calls = originals(scope).usage.get(usage, usage_record::calls);
    const Ref avg_ms = calls ? mean_ms(scope, usage) : Ref{};
    const Ref predicate = avg_ms ? scope.global(names::is_slow_call) : Ref{};
    const Ref slow = predicate ? cpython::call(predicate.get(), tool_name, action.get()) : Ref{};
    if (!slow) {
        return {};
    }
    return originals(scope).usage_row.make(
        {action.get(), outcome.get(), alias_hit.get(), calls.get(), avg_ms.get(), slow.get()});
}

}  // namespace

bool add_if_of_tool(const Scope& scope, PyObject* tool_name, PyObject* key, PyObject* usage, const Ref& rows)
{
    UsageKey parts;
    if (!cpython::unpack(key, parts)) {
        return false;
    }
    const Answer asked = cpython::compare(parts[0].get(), tool_name, Py_EQ);
    return asked == Answer::yes ? append(rows, make_row(scope, tool_name, parts, usage))
                                : asked == Answer::no;
}

Ref sorted_rows(const Ref& rows)
{
    const auto count = static_cast<std::size_t>(PyList_GET_SIZE(rows.get()));
    if (count == 0) {
        return rows.copy();
    }
    Scratch<RowRank> ranks{count};
    if (!ranks) {
        return {};
    }
    bool all_plain = true;
    for (std::size_t i = 0; all_plain && i < count; ++i) {
        all_plain = ranks[i].read(PyList_GET_ITEM(rows.get(), static_cast<Py_ssize_t>(i)), i);
    }
    if (!all_plain) {
        return cpython::sort_by(rows.get(), names::sort, names::key, rank_of_row_definition) ? rows.copy()
                                                                                             : Ref{};
    }
    std::ranges::sort(ranks, &RowRank::precedes);
    Ref ordered = Ref::steal(PyList_New(static_cast<Py_ssize_t>(count)));
    for (std::size_t i = 0; ordered && i < count; ++i) {
        PyList_SET_ITEM(ordered.get(), static_cast<Py_ssize_t>(i), ranks[i].row.release());
    }
    return ordered;
}

Ref usage_rows(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const tool_name = arguments[1];
    const Ref usage = attr(arguments[0], names::usage);
    const Ref items = usage ? cpython::call_method(usage.get(), names::items) : Ref{};
    const Ref entries = items ? Ref::steal(PyObject_GetIter(items.get())) : Ref{};
    const Ref rows = entries ? Ref::steal(PyList_New(0)) : Ref{};
    if (!rows) {
        return {};
    }
    while (const Ref entry = Ref::steal(PyIter_Next(entries.get()))) {
        std::array<Ref, 2> pair;
        if (!cpython::unpack(entry.get(), pair) ||
            !add_if_of_tool(scope, tool_name, pair[0].get(), pair[1].get(), rows)) {
            return {};
        }
    }
    return PyErr_Occurred() == nullptr ? sorted_rows(rows) : Ref{};
}

}  // namespace health
