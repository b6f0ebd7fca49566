// The two records that the state is made of, and quick access to their fields.
//
// `_ToolState` and `_Usage` are real dataclasses with slots. While such a class is as the import made it, a field of an
// instance lies at a fixed offset; anything else in its place (a patched or replaced class, a foreign object in the
// maps) takes ordinary attribute access. The reader of an operation sees one verb for both.
#pragma once

#include "cpython/function.hpp"
#include "cpython/known_type.hpp"
#include "cpython/numbers.hpp"
#include "names.hpp"

#include <array>
#include <span>

namespace health {

using cpython::Ref;
using cpython::Scope;

/// A field: where it stands among the slots, and its name for everybody else.
struct Field {
    std::size_t index;
    const cpython::Name& name;
};

namespace tool_state {
inline constexpr Field call_count{0, names::call_count};
inline constexpr Field error_count{1, names::error_count};
inline constexpr Field last_error{2, names::last_error};
inline constexpr Field disabled_at{3, names::disabled_at};
inline constexpr Field updated_at{4, names::updated_at};
inline constexpr Field consecutive_errors{5, names::consecutive_errors};
}  // namespace tool_state

namespace usage_record {
inline constexpr Field calls{0, names::calls};
inline constexpr Field timed_calls{1, names::timed_calls};
inline constexpr Field total_ms{2, names::total_ms};
}  // namespace usage_record

class RecordClass {
public:
    /// `field: annotation = value`
    struct FieldDefinition {
        const Field& field;
        const char* annotation;
        PyObject* value;
    };

    /// `@dataclass(slots=True) class <name>: ...` with the module's own `dataclass`; learns what comes out, and puts it
    /// into the module.
    [[nodiscard]] bool define(PyObject* globals, PyObject* name, const char* doc,
                              std::span<const FieldDefinition> fields);

    /// `record.field`
    [[nodiscard]] Ref get(PyObject* record, const Field& field) const
    {
        if (known_.is_class_of(record)) {
            if (PyObject* const value = slot(record, field.index); value != nullptr) {
                return Ref::borrow(value);
            }
        }
        return cpython::attr(record, field.name);
    }

    /// `record.field = value`; false for no value, whose error is set.
    [[nodiscard]] bool set(PyObject* record, const Field& field, Ref value) const
    {
        if (known_.is_class_of(record)) {
            return cpython::replace(slot(record, field.index), std::move(value));
        }
        // Dies here, as after the statement, and not in the caller's next line.
        const Ref stored = std::move(value);
        return cpython::set_attr(record, field.name, stored);
    }

    /// `record.field += value`
    [[nodiscard]] bool add(PyObject* record, const Field& field, PyObject* value) const
    {
        const Ref old = get(record, field);
        return old && set(record, field, cpython::in_place_sum(old.get(), value));
    }

    /// `record.field += 1`
    [[nodiscard]] bool add_one(PyObject* record, const Field& field) const
    {
        const Ref old = get(record, field);
        return old && set(record, field, cpython::successor(old.get()));
    }

    /// Whether `type` is the class that the import made, and its `__init__` only fills the slots.
    [[nodiscard]] bool is_original(PyObject* type) const { return is_standard_ && known_.is(type); }

    /// `type(*values)` of that class, with a value for each field.
    template <std::size_t Count>
    [[nodiscard]] Ref make(PyObject* type, const std::array<PyObject*, Count>& values) const
    {
        Ref record = Ref::steal(PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(type), 0));
        for (std::size_t i = 0; record && i < Count; ++i) {
            slot(record.get(), i) = Py_NewRef(values[i]);
        }
        return record;
    }

private:
    [[nodiscard]] PyObject*& slot(PyObject* record, std::size_t index) const
    {
        return *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(record) + offsets_[index]);
    }

    void learn(PyObject* type, std::span<const FieldDefinition> fields);

    cpython::KnownType known_;
    bool is_standard_ = false;  // made by the standard library's own decorator
    std::array<Py_ssize_t, 6> offsets_{};
};

/// Defines `_ToolState` and `_Usage` in the module.
[[nodiscard]] bool define_records(PyObject* globals, RecordClass& tool_state_class, RecordClass& usage_class);

/// The body of `class <name>` with this documentation, to which members may be added; and `class <name>: <body>`.
Ref class_body(PyObject* globals, PyObject* name, const char* doc);
Ref make_class(PyObject* name, const Ref& body);

}  // namespace health
