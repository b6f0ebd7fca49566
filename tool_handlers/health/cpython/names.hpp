// Interned strings with static lifetime.
//
// Attribute names, dictionary keys and SQL texts are made once per process, at the first import, and kept for good:
// immutable strings are the only Python objects that a C++ static of this module holds, so that the module can be
// executed any number of times (other package name, other interpreter) with nothing shared that could be changed.
#pragma once

#include "interpreter.hpp"

namespace cpython {

class Name {
public:
    explicit Name(const char* text) : text_{text}, next_{first_} { first_ = this; }
    ~Name() = default;
    Name(const Name&) = delete;
    Name& operator=(const Name&) = delete;
    Name(Name&&) = delete;
    Name& operator=(Name&&) = delete;

    /// Borrowed; valid once `intern_all` has succeeded. A name stands wherever its string is wanted, hence implicit.
    // NOLINTNEXTLINE(google-explicit-constructor)
    operator PyObject*() const { return object_; }
    [[nodiscard]] const char* text() const { return text_; }

    /// Makes every string that has not been made yet. Idempotent.
    [[nodiscard]] static bool intern_all()
    {
        for (Name* name = first_; name != nullptr; name = name->next_) {
            if (name->object_ == nullptr) {
                name->object_ = PyUnicode_InternFromString(name->text_);
            }
            if (name->object_ == nullptr) {
                return false;
            }
        }
        return true;
    }

private:
    inline static constinit Name* first_ = nullptr;

    const char* text_;
    PyObject* object_ = nullptr;
    Name* next_;
};

/// The names that the code in this directory uses.
namespace names {
inline Name doc{"__doc__"};
inline Name enter{"__enter__"};
inline Name exit{"__exit__"};
inline Name file{"__file__"};
inline Name key{"key"};
inline Name lock{"lock"};
inline Name name{"name"};
inline Name release{"release"};
inline Name round{"round"};
inline Name sort{"sort"};
inline Name thread{"_thread"};
}  // namespace names

}  // namespace cpython
