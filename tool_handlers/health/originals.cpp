#include "originals.hpp"

namespace health {

bool keep_constants(Originals& originals)
{
    originals.enabled = Ref::steal(PyTuple_Pack(2, Py_False, Py_None));
    return originals.enabled && originals.lock.find() &&
           originals.summary_record.set_keys({names::tool_name, names::call_count, names::error_count,
                                              names::last_error, names::disabled, names::disabled_at,
                                              names::updated_at, names::usage_list}) &&
           originals.usage_row.set_keys(
               {names::action, names::outcome, names::alias_hit, names::calls, names::avg_ms, names::slow}) &&
           originals.saved_entry.set_keys({names::tool, names::action, names::outcome, names::alias_hit,
                                           names::calls, names::timed_calls, names::total_ms}) &&
           originals.tool_stats.set_keys({names::name, names::count, names::avg_ms, names::p95_ms,
                                          names::min_ms, names::max_ms, names::errors});
}

Ref now(const Scope& scope)
{
    const Ref module = scope.global(names::time);
    if (!module) {
        return {};
    }
    // The attribute of a plain module is an entry of its dictionary, and a C function without arguments can be called
    // as the interpreter would: neither needs a bound method or an argument list.
    if (PyModule_CheckExact(module.get())) {
        Ref clock;
        if (PyDict_GetItemRef(PyModule_GetDict(module.get()), names::time, clock.out()) < 0) {
            return {};
        }
        if (clock && PyCFunction_CheckExact(clock.get()) &&
            PyCFunction_GET_FLAGS(clock.get()) == METH_NOARGS) {
            return Ref::steal(
                PyCFunction_GET_FUNCTION(clock.get())(PyCFunction_GET_SELF(clock.get()), nullptr));
        }
    }
    return cpython::call_method(module.get(), names::time);
}

}  // namespace health
