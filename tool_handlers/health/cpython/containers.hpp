// Dictionaries, tuples, lists.
#pragma once

#include "call.hpp"

#include <algorithm>
#include <array>

namespace cpython {

/// `(items...)`
template <class... Items>
Ref tuple_of(const Items&... items)
{
    Ref tuple = are_there(items...) ? Ref::steal(PyTuple_New(sizeof...(Items))) : Ref{};
    if (tuple) {
        Py_ssize_t at = 0;
        (PyTuple_SET_ITEM(tuple.get(), at++, Py_NewRef(Arg{items})), ...);
    }
    return tuple;
}

/// `dict[key] = value` for a plain dictionary
[[nodiscard]] inline bool set_entry(Arg dict, Arg key, Arg value)
{
    return are_there(dict, key, value) && PyDict_SetItem(dict, key, value) == 0;
}

/// A new dictionary that is to get just the names that `last` has, in their order. Made as a copy of that, where there is
/// one, it has the right size at once.
inline Ref dict_like(const Ref& last) { return Ref::steal(last ? PyDict_Copy(last.get()) : PyDict_New()); }

/// `{name: value, ...}`, one of several with the same names; `last` keeps the latest.
template <std::size_t Count>
Ref dict_of(const std::array<Named, Count>& entries, Ref& last)
{
    Ref dict = dict_like(last);
    for (const Named& entry : entries) {
        if (!set_entry(dict, entry.name, entry.value)) {
            return {};
        }
    }
    last = dict.copy();
    return dict;
}

/// The only one of its kind.
template <std::size_t Count>
Ref dict_of(const std::array<Named, Count>& entries)
{
    Ref last;
    return dict_of(entries, last);
}

/// `map.get(key)`: yes with the value in `value`, no when that gives None.
inline Answer get_from(Arg map, Arg key, Arg get, Ref& value)
{
    if (map != nullptr && PyDict_CheckExact(map)) {
        if (PyDict_GetItemRef(map, key, value.out()) < 0) {
            return Answer::failed;
        }
    } else {
        value = call_method(map, get, key);
        if (!value) {
            return Answer::failed;
        }
    }
    return value && value.get() != Py_None ? Answer::yes : Answer::no;
}

/// The value of a dictionary's entry at a position, if it is the one under an interned string; else null without an
/// error. One comparison spares hashing and probing where an entry is nearly always at the same place. Borrowed: good
/// until foreign code runs.
inline PyObject* value_at(PyObject* dict, Py_ssize_t position, PyObject* key)
{
    // PyDict_Next sets both if it finds an entry. Clearing them first made a recorded call 5 % slower (measured).
    PyObject* found;  // NOLINT(cppcoreguidelines-init-variables)
    PyObject* value;  // NOLINT(cppcoreguidelines-init-variables)
    return PyDict_Next(dict, &position, &found, &value) != 0 && found == key ? value : nullptr;
}

/// `a, b, ... = object`
template <std::size_t Count>
[[nodiscard]] bool unpack(PyObject* object, std::array<Ref, Count>& targets)
{
    if (PyTuple_CheckExact(object) && PyTuple_GET_SIZE(object) == static_cast<Py_ssize_t>(Count)) {
        for (std::size_t i = 0; i < Count; ++i) {
            targets[i] = Ref::borrow(PyTuple_GET_ITEM(object, static_cast<Py_ssize_t>(i)));
        }
        return true;
    }
    const Ref iterator = Ref::steal(PyObject_GetIter(object));
    if (!iterator) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) != 0 && Py_TYPE(object)->tp_iter == nullptr &&
            PySequence_Check(object) == 0) {
            PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                         Py_TYPE(object)->tp_name);
        }
        return false;
    }
    for (std::size_t i = 0; i < Count; ++i) {
        targets[i] = Ref::steal(PyIter_Next(iterator.get()));
        if (!targets[i]) {
            if (PyErr_Occurred() == nullptr) {
                PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected %zu, got %zu)", Count,
                             i);
            }
            return false;
        }
    }
    if (const Ref extra = Ref::steal(PyIter_Next(iterator.get())); extra) {
        PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zu)", Count);
    }
    return PyErr_Occurred() == nullptr;
}

/// Appends to a list that nobody else can see.
[[nodiscard]] inline bool append(Arg list, Arg value)
{
    return are_there(list, value) && PyList_Append(list, value) == 0;
}

/// `list.sort(key=key)`
[[nodiscard]] inline bool sort(const Ref& list, const Ref& key)
{
    const Ref keywords = tuple_of(names::key);
    const std::array<PyObject*, 2> stack{list.get(), key.get()};
    return keywords && Ref::steal(PyObject_VectorcallMethod(names::sort, stack.data(), 1, keywords.get()));
}

/// `"".join(texts)`
template <std::size_t Count>
Ref joined(const std::array<Arg, Count>& texts)
{
    Py_ssize_t length = 0;
    Py_UCS4 widest = 0;
    for (PyObject* text : texts) {
        if (text == nullptr) {
            return {};
        }
        length += PyUnicode_GET_LENGTH(text);
        widest = std::max(widest, PyUnicode_MAX_CHAR_VALUE(text));
    }
    Ref whole = Ref::steal(PyUnicode_New(length, widest));
    Py_ssize_t at = 0;
    for (PyObject* text : texts) {
        if (!whole || PyUnicode_CopyCharacters(whole.get(), at, text, 0, PyUnicode_GET_LENGTH(text)) < 0) {
            return {};
        }
        at += PyUnicode_GET_LENGTH(text);
    }
    return whole;
}

/// `list(iterable)`
inline Ref list_of(Arg iterable)
{
    return iterable != nullptr ? Ref::steal(PySequence_List(iterable)) : Ref{};
}

}  // namespace cpython
