// The health summary: every tool, the worst first, with its usage rows.
//
// A walk over all usage counts for every tool would cost tools times keys. So one pass groups the counts by tool, key
// and record held, and a tool's rows are made from its group: a summary describes the one instant at which it took the
// lock, whatever `is_slow_call` should do to the maps meanwhile. What a record holds is read when its row is made. An
// overridden `_usage_rows`, a replaced map, or keys that are not what the tracker puts there go the general way.
#include "cpython/containers.hpp"
#include "stored_formats.hpp"
#include "usage_rows.hpp"

#include <algorithm>
#include <tuple>

namespace health {

using cpython::Answer;
using cpython::append;
using cpython::attr;
using cpython::Scratch;

namespace {

constexpr std::size_t no_entry = static_cast<std::size_t>(-1);

/// One tool of the summary, with the chain of its usage counts.
struct Tool {
    Ref name;
    Ref state;
    long long errors = 0;
    long long calls = 0;
    std::size_t place = 0;  // in the order of listing, which keeps the order of equals
    std::size_t first_entry = no_entry;
    std::size_t last_entry = no_entry;

    [[nodiscard]] bool precedes(const Tool& other) const
    {
        return std::tie(other.errors, other.calls, place) < std::tie(errors, calls, other.place);
    }
};

/// One usage count, the place of its tool, and the next one of the same tool.
struct Entry {
    Ref key;
    Ref usage;
    std::size_t tool = 0;
    std::size_t next = no_entry;
};

/// The key of the general sort of (name, record) pairs: `(-record.error_count, -record.call_count)`.
PyObject* rank_of_pair(PyObject* /*module*/, PyObject* pair)
{
    std::array<Ref, 2> parts;
    if (!cpython::unpack(pair, parts)) {
        return nullptr;
    }
    PyObject* const state = parts[1].get();
    const Ref errors = attr(state, names::error_count);
    const Ref most_errors = errors ? Ref::steal(PyNumber_Negative(errors.get())) : Ref{};
    const Ref calls = most_errors ? attr(state, names::call_count) : Ref{};
    const Ref most_calls = calls ? Ref::steal(PyNumber_Negative(calls.get())) : Ref{};
    return most_calls ? PyTuple_Pack(2, most_errors.get(), most_calls.get()) : nullptr;
}

PyMethodDef rank_of_pair_definition{"rank", rank_of_pair, METH_O, nullptr};

/// The summary record of one tool; its rows come last, from `make_usage`.
template <class MakeUsage>
Ref make_record(const Scope& scope, PyObject* name, PyObject* state, MakeUsage make_usage)
{
    const ToolStateClass& records = originals(scope).tool_state;
    const Ref calls = records.get(state, tool_state::call_count);
    const Ref errors = calls ? records.get(state, tool_state::error_count) : Ref{};
    const Ref last_error = errors ? records.get(state, tool_state::last_error) : Ref{};
    const Ref disabled_at = last_error ? records.get(state, tool_state::disabled_at) : Ref{};
    if (!disabled_at) {
        return {};
    }
    const bool disabled = disabled_at.get() != Py_None;
    const Ref disabled_text = time_of(scope, state, tool_state::disabled_at);
    const Ref updated_text = disabled_text ? time_of(scope, state, tool_state::updated_at) : Ref{};
    const Ref usage = updated_text ? make_usage() : Ref{};
    return usage ? originals(scope).summary_record.make({name, calls.get(), errors.get(), last_error.get(),
                                                         disabled ? Py_True : Py_False, disabled_text.get(),
                                                         updated_text.get(), usage.get()})
                 : Ref{};
}

/// A tool's record, or a default one that is for this summary only.
Ref state_or_default(const Scope& scope, PyObject* states, PyObject* name)
{
    Ref state;
    if (cpython::get_from(states, name, names::get, state) != Answer::no) {
        return state;
    }
    const Ref type = scope.global(names::tool_state);
    return type ? originals(scope).tool_state.make(type.get()) : Ref{};
}

/// The names of all tools, each at its first place: those with a record, then those with usage counts only.
Ref tool_names(const Tracker& tracker)
{
    const Ref states = tracker.get(tracker_field::state);
    const Ref names = states ? Ref::steal(PySequence_List(states.get())) : Ref{};
    const Ref usage = names ? tracker.get(tracker_field::usage) : Ref{};
    const Ref keys = usage ? Ref::steal(PyObject_GetIter(usage.get())) : Ref{};
    if (!keys) {
        return {};
    }
    while (const Ref key = Ref::steal(PyIter_Next(keys.get()))) {
        if (!append(names, cpython::item(key.get(), Py_GetConstantBorrowed(Py_CONSTANT_ZERO)))) {
            return {};
        }
    }
    auto* const dict_type = reinterpret_cast<PyObject*>(&PyDict_Type);
    const Ref unique =
        PyErr_Occurred() == nullptr ? cpython::call_method(dict_type, names::fromkeys, names.get()) : Ref{};
    return unique ? Ref::steal(PyDict_Keys(unique.get())) : Ref{};
}

/// The pairs of name and record, ranked.
Ref ranked_pairs(const Scope& scope, const Tracker& tracker)
{
    const Ref listed = tool_names(tracker);
    Ref pairs = listed ? Ref::steal(PyList_New(0)) : Ref{};
    if (!pairs) {
        return {};
    }
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(listed.get()); ++i) {
        const Ref name = Ref::borrow(PyList_GET_ITEM(listed.get(), i));
        const Ref states = tracker.get(tracker_field::state);
        const Ref state = states ? state_or_default(scope, states.get(), name.get()) : Ref{};
        if (!state || !append(pairs, Ref::steal(PyTuple_Pack(2, name.get(), state.get())))) {
            return {};
        }
    }
    return originals(scope).worst_first.sort(pairs.get()) ? std::move(pairs) : Ref{};
}

/// The summary for maps and keys of any kind, one walk of the usage map per tool.
Ref summarise_any(const Scope& scope, const Tracker& tracker)
{
    const Ref pairs = ranked_pairs(scope, tracker);
    Ref summary = pairs ? Ref::steal(PyList_New(0)) : Ref{};
    for (Py_ssize_t i = 0; summary && i < PyList_GET_SIZE(pairs.get()); ++i) {
        const Ref pair = Ref::borrow(PyList_GET_ITEM(pairs.get(), i));
        std::array<Ref, 2> parts;
        const auto rows = [&] {
            return cpython::call_method(tracker.self(), names::usage_rows, parts[0].get());
        };
        if (!cpython::unpack(pair.get(), parts) ||
            !append(summary, make_record(scope, parts[0].get(), parts[1].get(), rows))) {
            return {};
        }
    }
    return summary;
}

/// The summary over plain maps: dictionaries whose keys and counts are what the tracker puts there.
class GroupedSummary {
public:
    GroupedSummary(const Scope& scope, const Tracker& tracker, Ref states, Ref usage)
        : scope_{scope}, tracker_{tracker}, states_{std::move(states)}, usage_{std::move(usage)},
          places_{Ref::steal(PyDict_New())}
    {
    }

    /// Lists, groups and ranks. No when something is not plain; nothing foreign has run then, and nothing has changed.
    Answer prepare()
    {
        if (!places_ || !entries_.allocate(static_cast<std::size_t>(PyDict_GET_SIZE(usage_.get())))) {
            return Answer::failed;
        }
        Answer listed = list_states();
        listed = listed == Answer::yes ? list_usage() : listed;
        if (listed != Answer::yes) {
            return listed;
        }
        return group() ? rank() : Answer::failed;
    }

    /// The records, the worst first.
    Ref build()
    {
        Ref summary = Ref::steal(PyList_New(0));
        for (const Tool& tool : tools_) {
            if (!summary || !append(summary, make_record(scope_, tool.name.get(), tool.state.get(),
                                                         [&] { return usage_of(tool); }))) {
                return {};
            }
        }
        return summary;
    }

private:
    /// Finds the place of the tool of that name, which is listed last if it is new; false for a failure.
    bool find_place(PyObject* name, std::size_t& place)
    {
        Ref number;
        if (PyDict_GetItemRef(places_.get(), name, number.out()) != 0) {
            place = number ? PyLong_AsSize_t(number.get()) : 0;
            return static_cast<bool>(number);
        }
        place = static_cast<std::size_t>(PyDict_GET_SIZE(places_.get()));
        number = Ref::steal(PyLong_FromSize_t(place));
        return number && PyDict_SetItem(places_.get(), name, number.get()) == 0;
    }

    Answer list_states()
    {
        Py_ssize_t position = 0;
        PyObject* name = nullptr;
        while (PyDict_Next(states_.get(), &position, &name, nullptr) != 0) {
            if (!PyUnicode_CheckExact(name)) {
                return Answer::no;
            }
            if (std::size_t place = 0; !find_place(name, place)) {
                return Answer::failed;
            }
        }
        return Answer::yes;
    }

    Answer list_usage()
    {
        Py_ssize_t position = 0;
        PyObject* key = nullptr;
        PyObject* usage = nullptr;
        for (std::size_t at = 0; PyDict_Next(usage_.get(), &position, &key, &usage) != 0; ++at) {
            if (!PyTuple_CheckExact(key) || PyTuple_GET_SIZE(key) != static_cast<Py_ssize_t>(key_parts) ||
                !PyUnicode_CheckExact(PyTuple_GET_ITEM(key, 0))) {
                return Answer::no;
            }
            Entry& entry = entries_[at];
            entry.key = Ref::borrow(key);
            entry.usage = Ref::borrow(usage);
            if (!find_place(PyTuple_GET_ITEM(key, 0), entry.tool)) {
                return Answer::failed;
            }
        }
        return Answer::yes;
    }

    /// Makes the tools in the order of listing, and chains their entries; false for want of memory.
    bool group()
    {
        Py_ssize_t position = 0;
        PyObject* name = nullptr;
        PyObject* state = nullptr;
        if (!tools_.allocate(static_cast<std::size_t>(PyDict_GET_SIZE(places_.get())))) {
            return false;
        }
        for (std::size_t place = 0; PyDict_Next(places_.get(), &position, &name, nullptr) != 0; ++place) {
            tools_[place].name = Ref::borrow(name);
            tools_[place].place = place;
        }
        position = 0;
        for (std::size_t place = 0; PyDict_Next(states_.get(), &position, nullptr, &state) != 0; ++place) {
            tools_[place].state = Ref::borrow(state);  // they were listed first
        }
        for (std::size_t at = 0; at < entries_.size(); ++at) {
            Tool& tool = tools_[entries_[at].tool];
            (tool.last_entry == no_entry ? tool.first_entry : entries_[tool.last_entry].next) = at;
            tool.last_entry = at;
        }
        return true;
    }

    Answer rank()
    {
        const ToolStateClass& records = originals(scope_).tool_state;
        for (Tool& tool : tools_) {
            if (!tool.state) {
                Ref type;
                const Answer found = scope_.find_global(names::tool_state, type);
                if (found != Answer::yes || !records.is_original(type.get())) {
                    return found == Answer::failed ? found : Answer::no;
                }
                tool.state = records.make(type.get());
                if (!tool.state) {
                    return Answer::failed;
                }
            }
            if (!records.is_plain(tool.state.get()) ||
                !cpython::as_number(records.get(tool.state.get(), tool_state::error_count).get(),
                                    tool.errors) ||
                !cpython::as_number(records.get(tool.state.get(), tool_state::call_count).get(),
                                    tool.calls)) {
                return Answer::no;
            }
        }
        std::ranges::sort(tools_, &Tool::precedes);
        return Answer::yes;
    }

    /// `self._usage_rows(name)`, from the tool's group as long as the method is the module's own and the usage map the
    /// one that was grouped.
    Ref usage_of(const Tool& tool)
    {
        const Ref method = attr(tracker_.self(), names::usage_rows);
        if (!method) {
            return {};
        }
        if (!PyMethod_Check(method.get()) || PyMethod_GET_SELF(method.get()) != tracker_.self() ||
            !scope_.owns(PyMethod_GET_FUNCTION(method.get()), cpython::enter<usage_rows, 2, 0>)) {
            return cpython::call(method.get(), tool.name.get());
        }
        const Ref usage = tracker_.get(tracker_field::usage);
        if (!usage || usage.get() != usage_.get()) {
            return usage ? rows_of(scope_, usage.get(), tool.name.get()) : Ref{};
        }
        const Ref rows = Ref::steal(PyList_New(0));
        for (std::size_t at = tool.first_entry; rows && at != no_entry; at = entries_[at].next) {
            const Entry& entry = entries_[at];
            if (!add_row(scope_, tool.name.get(), entry.key.get(), entry.usage.get(), rows)) {
                return {};
            }
        }
        return rows ? sorted_rows(scope_, rows) : Ref{};
    }

    const Scope& scope_;
    const Tracker& tracker_;
    Ref states_;
    Ref usage_;
    Ref places_;  // of the tools, by name, in the order of listing
    Scratch<Entry> entries_;
    Scratch<Tool> tools_;
};

/// The summary, under the lock.
Ref summarise(const Scope& scope, const Tracker& tracker)
{
    if (!tracker.is_plain(tracker_field::state) || !tracker.is_plain(tracker_field::usage)) {
        return summarise_any(scope, tracker);  // how often a field is read may show
    }
    Ref states = tracker.get(tracker_field::state);
    Ref usage = states ? tracker.get(tracker_field::usage) : Ref{};
    if (!usage) {
        return {};
    }
    if (PyDict_CheckExact(states.get()) && PyDict_CheckExact(usage.get())) {
        GroupedSummary grouped{scope, tracker, std::move(states), std::move(usage)};
        switch (grouped.prepare()) {
        case Answer::yes:
            return grouped.build();
        case Answer::failed:
            return {};
        case Answer::no:
            break;
        }
    }
    return summarise_any(scope, tracker);
}

}  // namespace

bool keep_tool_order(Originals& originals)
{
    return originals.worst_first.set_function(rank_of_pair_definition, names::sort, names::key);
}

Ref get_health_summary(const Scope& scope, PyObject* const* arguments)
{
    Ref summary;
    const cpython::BlockEnd end = locked(scope, arguments[0], [&](const Tracker& tracker) {
        summary = summarise(scope, tracker);
        return static_cast<bool>(summary);
    });
    return result_of(end, std::move(summary));
}

}  // namespace health
