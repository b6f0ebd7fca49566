#include "usage_rows.hpp"

#include "cpython/containers.hpp"
#include "stored_formats.hpp"

#include <algorithm>

namespace health {

using cpython::Answer;

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

bool add_row(const Scope& scope, PyObject* tool_name, PyObject* key, PyObject* usage, const Ref& rows)
{
    UsageKey parts;
    return cpython::unpack(key, parts) && append(rows, make_row(scope, tool_name, parts, usage));
}

bool keep_row_order(Originals& originals)
{
    return originals.most_first.set_function(rank_of_row_definition, names::sort, names::key);
}

Ref sorted_rows(const Scope& scope, const Ref& rows)
{
    return originals(scope).most_first.sort(rows.get()) ? rows.copy() : Ref{};
}

Ref rows_of(const Scope& scope, PyObject* usage, PyObject* tool_name)
{
    const Ref items = cpython::call_method(usage, names::items);
    const Ref entries = items ? Ref::steal(PyObject_GetIter(items.get())) : Ref{};
    const Ref rows = entries ? Ref::steal(PyList_New(0)) : Ref{};
    if (!rows) {
        return {};
    }
    while (const Ref entry = Ref::steal(PyIter_Next(entries.get()))) {
        std::array<Ref, 2> pair;
        UsageKey key;
        if (!cpython::unpack(entry.get(), pair) || !cpython::unpack(pair[0].get(), key)) {
            return {};
        }
        const Answer asked = cpython::compare(key[0].get(), tool_name, Py_EQ);
        if (asked == Answer::failed ||
            (asked == Answer::yes && !append(rows, make_row(scope, tool_name, key, pair[1].get())))) {
            return {};
        }
    }
    return PyErr_Occurred() == nullptr ? sorted_rows(scope, rows) : Ref{};
}

Ref usage_rows(const Scope& scope, PyObject* const* arguments)
{
    const Ref usage = cpython::attr(arguments[0], names::usage);
    return usage ? rows_of(scope, usage.get(), arguments[1]) : Ref{};
}

}  // namespace health
