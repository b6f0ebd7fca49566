// Dictionaries made from known keys, unpacking, and scratch arrays.
#pragma once

#include "call.hpp"

#include <array>
#include <concepts>
#include <new>

namespace cpython {

/// `(items...)`
template <std::same_as<Ref>... Items>
Ref tuple_of(Items... items)
{
    Ref tuple = Ref::steal(PyTuple_New(sizeof...(Items)));
    if (tuple) {
        Py_ssize_t at = 0;
        (PyTuple_SET_ITEM(tuple.get(), at++, items.release()), ...);
    }
    return tuple;
}

/// The value of a dictionary's entry at a position, if it is the one under an interned string; else null without an
/// error. One comparison spares hashing and probing where an entry is nearly always at the same place. Borrowed: good
/// until foreign code runs.
inline PyObject* value_at(PyObject* dict, Py_ssize_t position, PyObject* key)
{
    // Not cleared first, as PyDict_Next sets both when it finds one: the processor would guess that they are still null
    // afterwards, and lose 25 ns for being wrong (measured on Zen 4).
    PyObject* found;  // NOLINT(cppcoreguidelines-init-variables)
    PyObject* value;  // NOLINT(cppcoreguidelines-init-variables)
    return PyDict_Next(dict, &position, &found, &value) != 0 && found == key ? value : nullptr;
}

/// Dictionaries with the same keys in the same order, made by copying one that has them all: a copy is as large as it
/// has to be from the start. The keys are exact strings, so that no foreign code runs.
template <std::size_t Count>
class DictShape {
public:
    [[nodiscard]] bool set_keys(const std::array<PyObject*, Count>& keys)
    {
        keys_ = keys;
        pattern_ = Ref::steal(PyDict_New());
        for (PyObject* key : keys) {
            if (!pattern_ || PyDict_SetItem(pattern_.get(), key, Py_None) != 0) {
                return false;
            }
        }
        return static_cast<bool>(pattern_);
    }

    /// A new dictionary with these values, borrowed.
    [[nodiscard]] Ref make(const std::array<PyObject*, Count>& values) const
    {
        Ref dict = Ref::steal(PyDict_Copy(pattern_.get()));
        for (std::size_t i = 0; dict && i < Count; ++i) {
            if (PyDict_SetItem(dict.get(), keys_[i], values[i]) != 0) {
                return {};
            }
        }
        return dict;
    }

    [[nodiscard]] const std::array<PyObject*, Count>& keys() const { return keys_; }

private:
    std::array<PyObject*, Count> keys_{};  // interned for the life of the process
    Ref pattern_;                          // every key with None
};

/// The exception of an assignment to `expected` targets whose right side gave out after `got` values.
inline void raise_too_few(std::size_t expected, std::size_t got)
{
    if (PyErr_Occurred() == nullptr) {
        PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected %zu, got %zu)", expected, got);
    }
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
            raise_too_few(Count, i);
            return false;
        }
    }
    if (const Ref extra = Ref::steal(PyIter_Next(iterator.get())); extra) {
        PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zu)", Count);
    }
    return PyErr_Occurred() == nullptr;
}

/// `list.sort(key=function)` with a C function as the key.
class SortKey {
public:
    /// The definition has static lifetime; `sort` and `key` are interned for the life of the process.
    [[nodiscard]] bool set_function(PyMethodDef& function, PyObject* sort, PyObject* key)
    {
        sort_ = sort;
        function_ = Ref::steal(PyCFunction_New(&function, nullptr));
        keywords_ = function_ ? Ref::steal(PyTuple_Pack(1, key)) : Ref{};
        return static_cast<bool>(keywords_);
    }

    [[nodiscard]] bool sort(PyObject* list) const
    {
        std::array<PyObject*, 2> stack{list, function_.get()};
        return static_cast<bool>(
            Ref::steal(PyObject_VectorcallMethod(sort_, stack.data(), 1, keywords_.get())));
    }

private:
    PyObject* sort_ = nullptr;
    Ref function_;
    Ref keywords_;
};

/// `set.add(key)` of a plain set. A set that cannot grow for want of memory keeps the key all the same, until its table
/// is full, in which the interpreter would look for a free place for ever. `update` grows such a table before it adds.
[[nodiscard]] inline bool add_to_set(PyObject* set, PyObject* key, PyObject* update)
{
    const auto* const table = reinterpret_cast<PySetObject*>(set);
    if (table->fill < table->mask) {
        return PySet_Add(set, key) == 0;
    }
    const Ref one = Ref::steal(PySet_New(nullptr));
    return one && PySet_Add(one.get(), key) == 0 && call_method(set, update, one.get());
}

/// Scratch memory for the time of a call.
template <class Element>
class Scratch {
public:
    Scratch() = default;

    /// So many default-made elements, once; false for none and a MemoryError.
    [[nodiscard]] bool allocate(std::size_t size)
    {
        elements_ = static_cast<Element*>(PyMem_Calloc(size == 0 ? 1 : size, sizeof(Element)));
        if (elements_ == nullptr) {
            PyErr_NoMemory();
            return false;
        }
        for (; size_ < size; ++size_) {
            new (&elements_[size_]) Element{};
        }
        return true;
    }
    ~Scratch()
    {
        for (std::size_t i = 0; i < size_; ++i) {
            elements_[i].~Element();
        }
        PyMem_Free(elements_);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    Scratch(Scratch&&) = delete;
    Scratch& operator=(Scratch&&) = delete;

    Element& operator[](std::size_t index) { return elements_[index]; }
    Element* begin() { return elements_; }
    Element* end() { return elements_ + size_; }
    [[nodiscard]] std::size_t size() const { return size_; }

private:
    Element* elements_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace cpython
