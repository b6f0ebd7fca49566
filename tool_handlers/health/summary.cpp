// The health summary: every tool, the worst first, with its usage rows.
//
// A walk over all usage counts for every tool would cost tools times keys. So one pass groups the counts by tool, key
// and record held, and a tool's rows are made from its group: a summary describes the one instant at which it took the
// lock, whatever `is_slow_call` should do to the maps meanwhile. What a record holds is read when its row is made. An
// overridden `_usage_rows`, a replaced map, or keys that are not what the tracker puts there go the general way.
#include "stored_formats.hpp"
#include "usage_rows.hpp"

namespace health {

using cpython::Answer;
using cpython::append;
using cpython::attr;

namespace {

/// `(-pair[1].error_count, -pair[1].call_count)`
PyObject* rank(PyObject* /*module*/, PyObject* pair)
{
    std::array<Ref, 2> parts;
    if (!cpython::unpack(pair, parts)) {
        return nullptr;
    }
    const Ref errors = cpython::negative(attr(parts[1], names::error_count));
    const Ref calls = errors ? cpython::negative(attr(parts[1], names::call_count)) : Ref{};
    return cpython::tuple_of(errors, calls).release();
}

/// The names of all tools, each at its first place: those with a record, then those with usage counts only.
Ref tool_names(const Tracker& tracker)
{
    const Ref names = cpython::list_of(tracker.get(tracker_field::state));
    const bool listed = names && cpython::for_each(tracker.get(tracker_field::usage), [&](PyObject* key) {
                            return append(names, cpython::first_item(key));
                        });
    return listed ? cpython::call_method(reinterpret_cast<PyObject*>(&PyDict_Type), names::fromkeys, names)
                  : Ref{};
}

/// A tool's record, or a default one that is for this summary only.
Ref state_or_default(const Scope& scope, const Tracker& tracker, PyObject* name)
{
    Ref state;
    return cpython::get_from(tracker.get(tracker_field::state), name, names::get, state) == Answer::no
               ? cpython::call(scope.global(names::tool_state))
               : std::move(state);
}

/// The pairs of name and record, ranked.
Ref ranked_pairs(const Scope& scope, const Tracker& tracker)
{
    Ref pairs = Ref::steal(PyList_New(0));
    const bool done =
        pairs && cpython::for_each(tool_names(tracker), [&](PyObject* name) {
            return append(pairs, cpython::tuple_of(name, state_or_default(scope, tracker, name)));
        });
    return done && cpython::sort(pairs, import_state(scope).worst_first) ? std::move(pairs) : Ref{};
}

/// The usage counts by tool, as the summary finds them.
struct Groups {
    Ref usage;  // the map that was grouped
    Ref by_tool;  // for each tool a list of its keys and records in turn; null where only the general way will do
};

/// Puts the count into the list of its tool; no for a key that is not as the tracker makes them. Nothing foreign runs.
Answer add_to_group(const Ref& by_tool, PyObject* key, PyObject* usage)
{
    if (!PyTuple_CheckExact(key) || PyTuple_GET_SIZE(key) != static_cast<Py_ssize_t>(key_parts) ||
        !PyUnicode_CheckExact(PyTuple_GET_ITEM(key, 0))) {
        return Answer::no;
    }
    PyObject* const tool = PyTuple_GET_ITEM(key, 0);
    Ref group;
    if (PyDict_GetItemRef(by_tool.get(), tool, group.out()) == 0) {
        group = Ref::steal(PyList_New(0));
        if (!cpython::set_entry(by_tool, tool, group)) {
            return Answer::failed;
        }
    }
    return append(group, key) && append(group, usage) ? Answer::yes : Answer::failed;
}

/// Groups the counts; false for an error.
bool group(const Tracker& tracker, Groups& groups)
{
    if (!tracker.is_plain(tracker_field::usage)) {
        return true;  // how often the field is read may show
    }
    groups.usage = tracker.get(tracker_field::usage);
    if (!groups.usage || !PyDict_CheckExact(groups.usage.get())) {
        return static_cast<bool>(groups.usage);
    }
    groups.by_tool = Ref::steal(PyDict_New());
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* usage = nullptr;
    while (groups.by_tool && PyDict_Next(groups.usage.get(), &position, &key, &usage) != 0) {
        const Answer added = add_to_group(groups.by_tool, key, usage);
        if (added != Answer::yes) {
            groups.by_tool = Ref{};
            return added == Answer::no;
        }
    }
    return static_cast<bool>(groups.by_tool);
}

/// `self._usage_rows(name)`, from the tool's group as long as the method is the module's own and the map the grouped
/// one.
Ref usage_of(const Scope& scope, const Tracker& tracker, PyObject* name, const Groups& groups)
{
    const Ref method = attr(tracker.self(), names::usage_rows);
    if (!method || !groups.by_tool || !PyUnicode_CheckExact(name) || !PyMethod_Check(method.get()) ||
        PyMethod_GET_SELF(method.get()) != tracker.self() ||
        !scope.owns(PyMethod_GET_FUNCTION(method.get()), cpython::enter<usage_rows, 2, 0>)) {
        return cpython::call(method, name);
    }
    const Ref usage = tracker.get(tracker_field::usage);
    if (usage.get() != groups.usage.get()) {
        return UsageRows{scope, name}.from_map(usage);
    }
    Ref group;
    const int found = PyDict_GetItemRef(groups.by_tool.get(), name, group.out());
    return found >= 0 ? UsageRows{scope, name}.from_group(group) : Ref{};
}

/// The summary record of one tool; `last` is that of the tool before.
Ref make_record(const Scope& scope, const Tracker& tracker, PyObject* name, PyObject* state,
                const Groups& groups, Ref& last)
{
    const RecordClass& records = import_state(scope).tool_state;
    const Ref calls = records.get(state, tool_state::call_count);
    const Ref errors = calls ? records.get(state, tool_state::error_count) : Ref{};
    const Ref last_error = errors ? records.get(state, tool_state::last_error) : Ref{};
    const Ref disabled_at = last_error ? records.get(state, tool_state::disabled_at) : Ref{};
    const Ref disabled_text = disabled_at ? time_of(scope, state, tool_state::disabled_at) : Ref{};
    const Ref updated_text = disabled_text ? time_of(scope, state, tool_state::updated_at) : Ref{};
    const Ref usage = updated_text ? usage_of(scope, tracker, name, groups) : Ref{};
    return usage ? cpython::dict_of<8>({{{names::tool_name, name},
                                         {names::call_count, calls},
                                         {names::error_count, errors},
                                         {names::last_error, last_error},
                                         {names::disabled, disabled_at.get() != Py_None ? Py_True : Py_False},
                                         {names::disabled_at, disabled_text},
                                         {names::updated_at, updated_text},
                                         {names::usage_list, usage}}},
                                       last)
                 : Ref{};
}

/// The summary, under the lock.
Ref summarise(const Scope& scope, const Tracker& tracker)
{
    const Ref pairs = ranked_pairs(scope, tracker);
    Groups groups;
    Ref last;
    Ref summary = pairs && group(tracker, groups) ? Ref::steal(PyList_New(0)) : Ref{};
    const bool done =
        summary && cpython::for_each(pairs, [&](PyObject* pair) {
            std::array<Ref, 2> parts;
            return cpython::unpack(pair, parts) &&
                   append(summary, make_record(scope, tracker, parts[0].get(), parts[1].get(), groups, last));
        });
    return done ? std::move(summary) : Ref{};
}

}  // namespace

PyMethodDef rank_of_pair{"rank_of_pair", rank, METH_O, nullptr};

Ref get_health_summary(const Scope& scope, PyObject* const* arguments)
{
    const Tracker tracker{scope, arguments[0]};
    return locked(scope, tracker.get(tracker_field::lock), [&] { return summarise(scope, tracker); });
}

}  // namespace health
