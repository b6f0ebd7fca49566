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

template <std::size_t Fields>
class RecordClass {
public:
    struct FieldDefinition {
        const Field& field;
        const char* annotation = nullptr;
        Ref value;  // the default
    };
    using Definition = std::array<FieldDefinition, Fields>;

    /// `@dataclass(slots=True) class <name>: ...` with the module's own `dataclass`; learns what comes out.
    Ref define(PyObject* globals, PyObject* name, const char* doc, const Definition& definition);

    /// `record.field`
    [[nodiscard]] Ref get(PyObject* record, const Field& field) const
    {
        if (known_.is_class_of(record)) {
            if (PyObject* value = slot(record, field.index); value != nullptr) {
                return Ref::borrow(value);
            }
        }
        return cpython::attr(record, field.name);
    }

    /// `record.field is None`
    [[nodiscard]] cpython::Answer is_none(PyObject* record, const Field& field) const
    {
        Ref held;
        PyObject* value = known_.is_class_of(record) ? slot(record, field.index) : nullptr;
        if (value == nullptr) {
            held = cpython::attr(record, field.name);
            value = held.get();
        }
        return value != nullptr ? cpython::answer(value == Py_None ? 1 : 0) : cpython::Answer::failed;
    }

    /// `record.field = value`; false for no value, whose error is set.
    [[nodiscard]] bool set(PyObject* record, const Field& field, Ref value) const
    {
        if (known_.is_class_of(record)) {
            return cpython::replace(slot(record, field.index), std::move(value));
        }
        // Dies here, as after the statement, and not in the caller's next line.
        const Ref stored = std::move(value);
        return stored && cpython::set_attr(record, field.name, stored.get());
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
        if (known_.is_class_of(record)) {
            PyObject*& place = slot(record, field.index);
            if (place != nullptr && cpython::is_small_int(place)) {
                return cpython::replace(place, cpython::successor_of_small(place));
            }
        }
        const Ref old = get(record, field);
        return old &&
               set(record, field,
                   Ref::steal(PyNumber_InPlaceAdd(old.get(), Py_GetConstantBorrowed(Py_CONSTANT_ONE))));
    }

    /// Whether the record's fields can be read in place, all of them being there.
    [[nodiscard]] bool is_plain(PyObject* record) const
    {
        if (!known_.is_class_of(record)) {
            return false;
        }
        for (std::size_t i = 0; i < Fields; ++i) {
            if (slot(record, i) == nullptr) {
                return false;
            }
        }
        return true;
    }

    /// Whether `type` is the class that the import made, and makes instances as it did then.
    [[nodiscard]] bool is_original(PyObject* type) const { return known_.is(type); }

    /// `type()`, for whatever the name of the class stands for by now.
    [[nodiscard]] Ref make(PyObject* type) const
    {
        return is_original(type) ? make_original(type, defaults_) : cpython::call(type);
    }

    /// `type(*values)`, for the original class only.
    [[nodiscard]] Ref make_original(PyObject* type, const std::array<Ref, Fields>& values) const
    {
        auto* const as_type = reinterpret_cast<PyTypeObject*>(type);
        Ref record = Ref::steal(as_type->tp_alloc(as_type, 0));
        for (std::size_t i = 0; record && i < Fields; ++i) {
            slot(record.get(), i) = values[i].copy().release();
        }
        return record;
    }

    [[nodiscard]] const Ref& default_of(const Field& field) const { return defaults_[field.index]; }

private:
    [[nodiscard]] PyObject*& slot(PyObject* record, std::size_t index) const
    {
        return *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(record) + offsets_[index]);
    }

    [[nodiscard]] bool learn(PyObject* type, const Definition& definition);

    cpython::KnownType known_;
    std::array<Py_ssize_t, Fields> offsets_{};
    std::array<Ref, Fields> defaults_;
};

extern template class RecordClass<6>;
extern template class RecordClass<3>;

using ToolStateClass = RecordClass<6>;
using UsageClass = RecordClass<3>;

/// Defines `_ToolState` and `_Usage` in the module.
[[nodiscard]] bool define_records(PyObject* globals, ToolStateClass& tool_state_class,
                                  UsageClass& usage_class);

}  // namespace health
