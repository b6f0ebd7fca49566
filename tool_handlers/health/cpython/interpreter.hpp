// CPython's headers, and the list of what this module uses of them that may change with any version of Python. A port
// starts here:
//
//   PyFunction_SetVectorcall, fields of PyFunctionObject and PyCodeObject,
//   PyUnstable_Code_New, PyWeakReference::wr_object
//                                   function.*     functions whose calls end in C++, and which know their own code
//   PyThreadState::py_recursion_remaining, c_recursion_remaining
//                                   function.hpp   a nested operation counts like a nested Python function
//   PyThreadState::exc_info         call.hpp       the error that an `except` clause handles
//   _PyType_Lookup                  lock.cpp, tracker.hpp   the special methods of a `with` statement; whether a class
//                                                  hides a field
//   PyMethodDescrObject::d_method   lock.cpp       the C functions of the builtin lock
//   _PyObject_GetDictPtr            tracker.hpp    the fields of a tracker, read in place
//   PyMemberDescrObject::d_member   records.cpp    where a record's slots lie (also _PyType_Lookup)
//   PyUnstable_Type_AssignVersionTag, tp_version_tag
//                                   known_type.hpp whether a class has been changed
//   PyUnstable_Long_IsCompact, PyUnstable_Long_CompactValue
//                                   numbers.hpp    counters of machine size
#pragma once

#include <Python.h>

static_assert(PY_MAJOR_VERSION == 3 && PY_MINOR_VERSION == 13, "see the list above");
