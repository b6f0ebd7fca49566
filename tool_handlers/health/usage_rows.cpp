#include "usage_rows.hpp"

namespace health {

using cpython::Answer;
using cpython::item;

namespace {

/// `round(usage.total_ms / usage.timed_calls, 2) if usage.timed_calls else None`
Ref mean_ms(const Scope& scope, PyObject* usage)
{
    const RecordClass& records = import_state(scope).usage;
    const Answer timed = cpython::truth(records.get(usage, usage_record::timed_calls));
    if (timed != Answer::yes) {
        return cpython::none_if(timed == Answer::no);
    }
    const Ref total_ms = records.get(usage, usage_record::total_ms);
    const Ref timed_calls = total_ms ? records.get(usage, usage_record::timed_calls) : Ref{};
    return cpython::rounded(
        scope, timed_calls ? Ref::steal(PyNumber_TrueDivide(total_ms.get(), timed_calls.get())) : Ref{}, 2);
}

/// `(-row["calls"], str(row["action"]), row["outcome"], row["alias_hit"])`
PyObject* rank(PyObject* /*module*/, PyObject* row)
{
    const Ref calls = cpython::negative(item(row, names::calls));
    const Ref action = calls ? cpython::text_of(item(row, names::action)) : Ref{};
    const Ref outcome = action ? item(row, names::outcome) : Ref{};
    const Ref alias_hit = outcome ? item(row, names::alias_hit) : Ref{};
    return cpython::tuple_of(calls, action, outcome, alias_hit).release();
}

}  // namespace

PyMethodDef rank_of_row{"rank_of_row", rank, METH_O, nullptr};

/// The row of one usage key; asks the host whether such a call is slow by nature.
bool UsageRows::add(const UsageKey& key, PyObject* usage)
{
    const auto& [tool, action, outcome, alias_hit] = key;
    const Ref calls = import_state(scope_).usage.get(usage, usage_record::calls);
    const Ref avg_ms = calls ? mean_ms(scope_, usage) : Ref{};
    const Ref predicate = avg_ms ? scope_.global(names::is_slow_call) : Ref{};
    const Ref slow = cpython::call(predicate, tool_name_, action);
    return slow && cpython::append(rows_, cpython::dict_of<6>({{{names::action, action},
                                                                {names::outcome, outcome},
                                                                {names::alias_hit, alias_hit},
                                                                {names::calls, calls},
                                                                {names::avg_ms, avg_ms},
                                                                {names::slow, slow}}},
                                                              last_));
}

Ref UsageRows::sorted()
{
    return cpython::sort(rows_, import_state(scope_).most_first) ? std::move(rows_) : Ref{};
}

Ref UsageRows::from_map(const Ref& usage_map)
{
    const Ref items = rows_ ? cpython::call_method(usage_map, names::items) : Ref{};
    const bool done = cpython::for_each(items, [&](PyObject* entry) {
        std::array<Ref, 2> pair;
        UsageKey key;
        if (!cpython::unpack(entry, pair) || !cpython::unpack(pair[0].get(), key)) {
            return false;
        }
        const Answer wanted = cpython::compare(key[0], tool_name_, Py_EQ);
        return wanted == Answer::yes ? add(key, pair[1].get()) : wanted == Answer::no;
    });
    return done ? sorted() : Ref{};
}

Ref UsageRows::from_group(const Ref& group)
{
    for (Py_ssize_t i = 0; rows_ && group && i < PyList_GET_SIZE(group.get()); i += 2) {
        const Ref usage = Ref::borrow(PyList_GET_ITEM(group.get(), i + 1));
        UsageKey key;
        if (!cpython::unpack(PyList_GET_ITEM(group.get(), i), key) || !add(key, usage.get())) {
            return {};
        }
    }
    return rows_ ? sorted() : Ref{};
}

Ref usage_rows(const Scope& scope, PyObject* const* arguments)
{
    const Ref usage = cpython::attr(arguments[0], names::usage);
    return UsageRows{scope, arguments[1]}.from_map(usage);
}

}  // namespace health
