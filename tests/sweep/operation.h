// An exported operation as the sweep sees it: a row of the table, by which it is called with
// arguments that can be made again and again, each of them in turn replaced by the extremes of its
// kind, in good weather and in bad.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/** What the extremes of a parameter depend on. */
struct parameter {
    bool pointer;
    bool is_signed;
    size_t size; // bytes
};

/** Any function: its arguments and its result are numbers or addresses. */
struct callable {
    std::function<long(const long*)> call;
    std::vector<parameter> parameters;
    enum { NOTHING, ADDRESS, NUMBER } result;
};

template <typename T> T argument_as(long value)
{
    if constexpr (std::is_pointer_v<T>) {
        return reinterpret_cast<T>(value);
    } else if constexpr (std::is_class_v<T>) { // its first field
        T all = {};
        memcpy(&all, &value, std::min(sizeof all, sizeof value));
        return all;
    } else {
        return static_cast<T>(value);
    }
}

template <typename T> long as_number(T value)
{
    if constexpr (std::is_pointer_v<T>) {
        return reinterpret_cast<long>(value);
    } else {
        return static_cast<long>(value);
    }
}

template <typename T> constexpr bool is_signed_parameter()
{
    return std::is_enum_v<T> || std::is_class_v<T> || std::is_signed_v<T>;
}

template <typename R, typename... P> callable callable_of(R (*function)(P...))
{
    const auto call = [function]<size_t... N>(const long* values, std::index_sequence<N...>)->long
    {
        if constexpr (std::is_void_v<R>) {
            function(argument_as<P>(values[N])...);
            return 0;
        } else {
            return as_number(function(argument_as<P>(values[N])...));
        }
    };
    return {
        [call](const long* values) { return call(values, std::index_sequence_for<P...>()); },
        {{std::is_pointer_v<P>, is_signed_parameter<P>(), std::min(sizeof(P), sizeof(long))}...},
        std::is_void_v<R>      ? callable::NOTHING
        : std::is_pointer_v<R> ? callable::ADDRESS
                               : callable::NUMBER};
}

/** A valid argument, and what stands in its place beside the extremes of its type. */
struct argument {
    using maker = std::function<long()>;

    template <typename T>
    requires(std::is_integral_v<T> || std::is_enum_v<T>) argument(T number)
        : make([=] { return as_number(number); })
    {
    }
    template <std::invocable F> argument(F valid) : make([=] { return as_number(valid()); }) {}
    argument(const char* text);

    maker make;
    std::vector<std::pair<std::string, maker>> extremes;
    // Which of the type's extremes are left out, for the caller alone can tell that they are wrong.
    enum { NONE, TOO_LARGE, ALL } beyond_telling = NONE;
};

/** A number of elements that are there: more cannot be told from the truth. */
argument count(long number);

/** Not to be swept at all; the table says why. */
argument fixed(argument valid);

/** What an argument's maker sets where the C library keeps blocks of its own after the call. */
extern bool c_library_keeps;

/** Memory of the caller that an operation may write to. */
argument room(size_t bytes);

/**
 * A row. Outcomes are a result ("-" of an operation without one, "null", "ptr", "n" for a number
 * above 0 where the plain outcome is "n"), the code in errno behind a slash, "*" where a room was
 * written to, and behind ">" what the same call gives afterwards, in good weather, unless that is
 * the plain outcome.
 */
struct operation {
    const char* name;
    callable function;
    std::vector<argument> arguments;
    const char* plain;        // outcome of valid arguments
    const char* hostile = ""; // all others: "argument.extreme,extreme:outcome ..."
    const char* memory = "";  // outcomes while the nth allocation fails, or all from there on
    const char* threads = ""; // the same for the start of threads
    const char* files = "";   // the outcome without descriptors, where it is not the plain one
};

/** All that is exported and can be called, and what cannot: the variables. */
extern const std::vector<operation> operations;
extern const char* const variables;
