// What no implementation can go under: an operation that does nothing, and one that only takes and releases the lock,
// both made of the same parts as the module's operations (but the lock is found by ordinary attribute access).
#include "cpython/function.hpp"
#include "cpython/lock.hpp"

namespace {

using cpython::Ref;
using cpython::Scope;

cpython::Name lock_name{"_lock"};

struct State {
    cpython::LockClass lock;
};

Ref empty(const Scope& /*scope*/, PyObject* const* /*arguments*/) { return cpython::none(); }

Ref lock_only(const Scope& scope, PyObject* const* arguments)
{
    const Ref lock = cpython::attr(arguments[0], lock_name);
    return cpython::none_if(cpython::with_lock(scope.state<State>().lock, lock, [] { return true; }) ==
                            cpython::BlockEnd::completed);
}

constexpr std::array parameters{cpython::Parameter{"self"}, cpython::Parameter{"tool_name", "str"}};
constexpr std::array operations{
    cpython::operation<empty, parameters>("empty", "None", "Does nothing."),
    cpython::operation<lock_only, parameters>("lock_only", "None", "Takes and releases self._lock.")};

/// Puts the two into the module; the benchmark makes them methods of a class.
int execute(PyObject* module)
{
    const Ref globals = Ref::borrow(PyModule_GetDict(module));
    cpython::OperationMaker maker;
    auto* const state = cpython::Name::intern_all() ? maker.start<State>(globals.get()) : nullptr;
    if (state == nullptr || !state->lock.find()) {
        return -1;
    }
    for (const cpython::Operation& operation : operations) {
        const Ref function = maker.make(operation, nullptr);
        if (!function || PyDict_SetItemString(globals.get(), operation.name, function.get()) != 0) {
            return -1;
        }
    }
    return 0;
}

std::array<PyModuleDef_Slot, 2> slots{{{Py_mod_exec, reinterpret_cast<void*>(execute)}, {0, nullptr}}};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT, "floor", nullptr, 0, nullptr, slots.data(), nullptr, nullptr, nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_floor() { return PyModuleDef_Init(&definition); }
