#include "stored_formats.hpp"

#include "cpython/containers.hpp"

#include <datetime.h>

namespace health {

using cpython::Answer;
using cpython::attr;
using cpython::call_method;
using cpython::Named;

namespace {

constexpr Py_ssize_t text_length = 19;  // of a time in the years 1000 to 9999
constexpr int first_four_digit_year = 1000;

/// Whether the module's `datetime`, `timezone` and pattern are those of the interpreter and of the import. Then a
/// conversion may go through the C interface of the same datetime classes: they are immutable, so that a method of
/// theirs cannot have been patched. One that is missing is for the general way to find, in the order of its steps.
Answer has_original_datetime(const Scope& scope)
{
    if (PyDateTimeAPI == nullptr) {
        return Answer::no;
    }
    const std::array<std::pair<PyObject*, PyObject*>, 3> originals{{
        {names::datetime, reinterpret_cast<PyObject*>(PyDateTimeAPI->DateTimeType)},
        {names::timezone, reinterpret_cast<PyObject*>(Py_TYPE(PyDateTime_TimeZone_UTC))},
        {names::sqlite_timestamp, names::timestamp_pattern},
    }};
    Answer found = Answer::yes;
    for (std::size_t i = 0; found == Answer::yes && i < originals.size(); ++i) {
        Ref value;
        found = scope.find_global(originals[i].first, value);
        if (found == Answer::yes && value.get() != originals[i].second) {
            found = Answer::no;
        }
    }
    return found;
}

/// Writes `count` decimal digits.
Py_UCS1* put_digits(Py_UCS1* to, int value, int count)
{
    for (int i = count - 1; i >= 0; --i) {
        to[i] = static_cast<Py_UCS1>('0' + (value % 10));
        value /= 10;
    }
    return to + count;
}

/// `moment.strftime("%Y-%m-%d %H:%M:%S")` for a year of four digits.
Ref timestamp_text(PyObject* moment)
{
    Ref text = Ref::steal(PyUnicode_New(text_length, 127));
    if (!text) {
        return {};
    }
    auto* to = PyUnicode_1BYTE_DATA(text.get());
    to = put_digits(to, PyDateTime_GET_YEAR(moment), 4);
    const auto put = [&to](char separator, int value) {
        *to = static_cast<Py_UCS1>(separator);
        to = put_digits(to + 1, value, 2);
    };
    put('-', PyDateTime_GET_MONTH(moment));
    put('-', PyDateTime_GET_DAY(moment));
    put(' ', PyDateTime_DATE_GET_HOUR(moment));
    put(':', PyDateTime_DATE_GET_MINUTE(moment));
    put(':', PyDateTime_DATE_GET_SECOND(moment));
    return text;
}

/// `_sqlite_time` with the original datetime; the general way takes over for what strftime pads in its own way.
Ref format_original(PyObject* epoch)
{
    const Ref arguments = cpython::tuple_of(epoch, PyDateTime_TimeZone_UTC);
    const Ref moment =
        arguments ? Ref::steal(PyDateTimeAPI->DateTime_FromTimestamp(
                        reinterpret_cast<PyObject*>(PyDateTimeAPI->DateTimeType), arguments.get(), nullptr))
                  : Ref{};
    return moment && PyDateTime_GET_YEAR(moment.get()) >= first_four_digit_year
               ? timestamp_text(moment.get())
               : call_method(moment, names::strftime, names::timestamp_pattern);
}

/// `datetime.fromtimestamp(epoch, timezone.utc).strftime(_SQLITE_TIMESTAMP)`
Ref format_any(const Scope& scope, PyObject* epoch)
{
    const Ref from_timestamp = attr(scope.global(names::datetime), names::fromtimestamp);
    const Ref timezone = from_timestamp ? scope.global(names::timezone) : Ref{};
    const Ref moment = cpython::call(from_timestamp, epoch, attr(timezone, names::utc));
    const Ref format = attr(moment, names::strftime);
    return cpython::call(format, format ? scope.global(names::sqlite_timestamp) : Ref{});
}

/// Whether the exception that is set is a ValueError, which then is cleared.
bool clear_value_error()
{
    const bool is_one = PyErr_ExceptionMatches(PyExc_ValueError) != 0;
    if (is_one) {
        PyErr_Clear();
    }
    return is_one;
}

/// `_epoch` of a text just as the module writes them, with the original datetime: yes, no for any other text.
Answer parse_original(PyObject* text, Ref& seconds)
{
    constexpr long day_of_1970 = 719163;
    const Ref moment =
        call_method(reinterpret_cast<PyObject*>(PyDateTimeAPI->DateTimeType), names::fromisoformat, text);
    if (!moment) {
        return clear_value_error() ? Answer::no : Answer::failed;
    }
    const Answer same = cpython::compare(timestamp_text(moment.get()), text, Py_EQ);
    if (same != Answer::yes) {
        return same;
    }
    // Not by `timestamp`, which needs state of its module that is gone when a destructor runs at the very end.
    const Ref day = call_method(moment, names::toordinal);
    const long days = day ? PyLong_AsLong(day.get()) - day_of_1970 : 0;
    const long hours = (days * 24) + PyDateTime_DATE_GET_HOUR(moment.get());
    const int minutes = PyDateTime_DATE_GET_MINUTE(moment.get());
    const int within_hour = (minutes * 60) + PyDateTime_DATE_GET_SECOND(moment.get());
    seconds =
        day ? Ref::steal(PyFloat_FromDouble((static_cast<double>(hours) * 3600.0) + within_hour)) : Ref{};
    return seconds ? Answer::yes : Answer::failed;
}

/// `datetime.strptime(text, _SQLITE_TIMESTAMP).replace(tzinfo=timezone.utc).timestamp()`
Ref parse_any(const Scope& scope, PyObject* text)
{
    const Ref parse = attr(scope.global(names::datetime), names::strptime);
    const Ref moment = cpython::call(parse, text, parse ? scope.global(names::sqlite_timestamp) : Ref{});
    const Ref replace = attr(moment, names::replace);
    const Ref utc = attr(replace ? scope.global(names::timezone) : Ref{}, names::utc);
    const Ref in_utc = cpython::call_named(replace, std::array{Named{names::tzinfo, utc}});
    return call_method(in_utc, names::timestamp);
}

}  // namespace

bool find_datetime()
{
    const Ref module = Ref::steal(PyImport_GetModule(names::datetime));
    Ref capsule;
    if (!module || PyObject_GetOptionalAttr(module.get(), names::datetime_capi, capsule.out()) <= 0) {
        return PyErr_Occurred() == nullptr;
    }
    if (PyCapsule_IsValid(capsule.get(), PyDateTime_CAPSULE_NAME) != 0) {
        PyDateTimeAPI =
            static_cast<PyDateTime_CAPI*>(PyCapsule_GetPointer(capsule.get(), PyDateTime_CAPSULE_NAME));
    }
    return true;
}

Ref sqlite_time(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const epoch = arguments[0];
    if (epoch == Py_None) {
        return cpython::none();
    }
    switch (has_original_datetime(scope)) {
    case Answer::yes:
        return format_original(epoch);
    case Answer::no:
        return format_any(scope, epoch);
    case Answer::failed:
        break;
    }
    return {};
}

Ref epoch(const Scope& scope, PyObject* const* arguments)
{
    PyObject* const text = arguments[0];
    const Answer present = cpython::truth(text);
    if (present != Answer::yes) {
        return present == Answer::no ? cpython::none() : Ref{};
    }
    Ref seconds;
    Answer parsed = PyUnicode_CheckExact(text) ? has_original_datetime(scope) : Answer::no;
    if (parsed == Answer::yes) {
        parsed = parse_original(text, seconds);
    }
    if (parsed == Answer::no) {
        seconds = parse_any(scope, text);
        if (!seconds && clear_value_error()) {
            return cpython::none();
        }
    }
    return seconds;
}

Ref time_of(const Scope& scope, PyObject* state, const Field& field)
{
    const Ref function = scope.global(names::sqlite_time);
    return cpython::call_operation<sqlite_time>(
        scope, function, function ? import_state(scope).tool_state.get(state, field) : Ref{});
}

}  // namespace health
