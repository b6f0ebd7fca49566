#include "stored_formats.hpp"

#include "originals.hpp"

#include <datetime.h>

#include <cmath>

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
    const Ref arguments = Ref::steal(PyTuple_Pack(2, epoch, PyDateTime_TimeZone_UTC));
    const Ref moment =
        arguments ? Ref::steal(PyDateTimeAPI->DateTime_FromTimestamp(
                        reinterpret_cast<PyObject*>(PyDateTimeAPI->DateTimeType), arguments.get(), nullptr))
                  : Ref{};
    if (!moment) {
        return {};
    }
    return PyDateTime_GET_YEAR(moment.get()) < first_four_digit_year
               ? call_method(moment.get(), names::strftime, static_cast<PyObject*>(names::timestamp_pattern))
               : timestamp_text(moment.get());
}

/// `datetime.fromtimestamp(epoch, timezone.utc).strftime(_SQLITE_TIMESTAMP)`
Ref format_any(const Scope& scope, PyObject* epoch)
{
    const Ref datetime = scope.global(names::datetime);
    const Ref from_timestamp = datetime ? attr(datetime.get(), names::fromtimestamp) : Ref{};
    const Ref timezone = from_timestamp ? scope.global(names::timezone) : Ref{};
    const Ref utc = timezone ? attr(timezone.get(), names::utc) : Ref{};
    const Ref moment = utc ? cpython::call(from_timestamp.get(), epoch, utc.get()) : Ref{};
    const Ref format = moment ? attr(moment.get(), names::strftime) : Ref{};
    const Ref pattern = format ? scope.global(names::sqlite_timestamp) : Ref{};
    return pattern ? cpython::call(format.get(), pattern.get()) : Ref{};
}

/// The fields of a text in the very form that the module writes, "2023-11-14 22:13:20"; false for any other text.
bool split_timestamp(PyObject* text, std::array<int, 6>& fields)
{
    static constexpr std::array<char, text_length + 1> shape{"dddd-dd-dd dd:dd:dd"};
    if (!PyUnicode_CheckExact(text) || PyUnicode_GET_LENGTH(text) != text_length ||
        !PyUnicode_IS_ASCII(text)) {
        return false;
    }
    const auto* characters = PyUnicode_1BYTE_DATA(text);
    std::size_t field = 0;
    fields = {};
    for (std::size_t i = 0; i < static_cast<std::size_t>(text_length); ++i) {
        const Py_UCS1 character = characters[i];
        if (shape[i] == 'd') {
            if (character < '0' || character > '9') {
                return false;
            }
            fields[field] = fields[field] * 10 + (character - '0');
        } else if (character == static_cast<Py_UCS1>(shape[i])) {
            ++field;
        } else {
            return false;
        }
    }
    return true;
}

/// A ValueError, of a text that does not match or names no real time, becomes None.
Ref unreadable_is_none()
{
    if (PyErr_ExceptionMatches(PyExc_ValueError) == 0) {
        return {};
    }
    PyErr_Clear();
    return cpython::none();
}

/// `datetime.strptime(text, _SQLITE_TIMESTAMP).replace(tzinfo=timezone.utc).timestamp()`
Ref parse_any(const Scope& scope, PyObject* text)
{
    const Ref datetime = scope.global(names::datetime);
    const Ref parse = datetime ? attr(datetime.get(), names::strptime) : Ref{};
    const Ref pattern = parse ? scope.global(names::sqlite_timestamp) : Ref{};
    const Ref moment = pattern ? cpython::call(parse.get(), text, pattern.get()) : Ref{};
    const Ref replace = moment ? attr(moment.get(), names::replace) : Ref{};
    const Ref timezone = replace ? scope.global(names::timezone) : Ref{};
    const Ref utc = timezone ? attr(timezone.get(), names::utc) : Ref{};
    const Ref in_utc =
        utc ? cpython::call_named(replace.get(), std::array{Named{names::tzinfo, utc.get()}}) : Ref{};
    return in_utc ? call_method(in_utc.get(), names::timestamp) : Ref{};
}

/// A UTC time as a datetime object; a ValueError for one that does not exist.
Ref utc_moment(const std::array<int, 6>& fields)
{
    const auto& [year, month, day, hour, minute, second] = fields;
    return Ref::steal(PyDateTimeAPI->DateTime_FromDateAndTime(
        year, month, day, hour, minute, second, 0, PyDateTime_TimeZone_UTC, PyDateTimeAPI->DateTimeType));
}

/// The same for the fields of a well-formed text, with the original datetime. The difference is taken here, as
/// `timestamp` would: that method needs state of its module which is gone when a destructor runs at the very end.
Ref parse_original(const std::array<int, 6>& fields)
{
    constexpr double seconds_per_day = 86400.0;
    const Ref moment = utc_moment(fields);
    const Ref epoch = moment ? utc_moment({1970, 1, 1, 0, 0, 0}) : Ref{};
    const Ref since = epoch ? Ref::steal(PyNumber_Subtract(moment.get(), epoch.get())) : Ref{};
    return since ? Ref::steal(PyFloat_FromDouble((PyDateTime_DELTA_GET_DAYS(since.get()) * seconds_per_day) +
                                                 PyDateTime_DELTA_GET_SECONDS(since.get())))
                 : Ref{};
}

/// The nearest multiple of 1 / scale, if arithmetic on doubles finds it for certain. A tie is a double below the bound,
/// so that the product lies on the side of it where the true one does, unless it is the tie itself; and the quotient of
/// two integers is the double nearest to the decimal, which is what `round` answers.
bool round_quickly(double value, double scale, double& result)
{
    constexpr double bound = 1099511627776.0;  // 2**40
    const double scaled = value * scale;
    if (!(std::fabs(scaled) < bound)) {
        return false;
    }
    const double nearest = std::nearbyint(scaled);
    result = nearest / scale;
    return std::fabs(scaled - nearest) < 0.5;
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
    std::array<int, 6> fields{};
    const Answer original = split_timestamp(text, fields) ? has_original_datetime(scope) : Answer::no;
    if (original == Answer::failed) {
        return {};
    }
    Ref seconds = original == Answer::yes ? parse_original(fields) : parse_any(scope, text);
    return seconds ? std::move(seconds) : unreadable_is_none();
}

Ref time_of(const Scope& scope, PyObject* state, const Field& field)
{
    const Ref function = scope.global(names::sqlite_time);
    const Ref epoch = function ? originals(scope).tool_state.get(state, field) : Ref{};
    if (!epoch) {
        return {};
    }
    PyObject* const argument = epoch.get();
    return scope.owns(function.get(), cpython::enter<sqlite_time, 1, 0>)
               ? sqlite_time(scope, &argument)
               : cpython::call(function.get(), argument);
}

Ref call_epoch(const Scope& scope, PyObject* text)
{
    const Ref function = scope.global(names::epoch);
    if (!function) {
        return {};
    }
    return scope.owns(function.get(), cpython::enter<epoch, 1, 0>) ? epoch(scope, &text)
                                                                   : cpython::call(function.get(), text);
}

Ref rounded(const Scope& scope, PyObject* value, int digits)
{
    double result = 0.0;
    if (PyFloat_CheckExact(value) &&
        round_quickly(PyFloat_AS_DOUBLE(value), digits == 2 ? 100.0 : 1000.0, result)) {
        return Ref::steal(PyFloat_FromDouble(result));
    }
    const Ref places = Ref::steal(PyLong_FromLong(digits));
    const Ref round = places ? scope.global(names::round) : Ref{};
    return round ? cpython::call(round.get(), value, places.get()) : Ref{};
}

Ref whole_or_zero(PyObject* value)
{
    const Answer present = cpython::truth(value);
    if (present == Answer::failed) {
        return {};
    }
    return present == Answer::yes ? Ref::steal(PyNumber_Long(value)) : cpython::zero();
}

}  // namespace health
