// SPDX-License-Identifier: MIT
#ifndef ZELCOMMANDFUNCTION_H
#define ZELCOMMANDFUNCTION_H

#include "zelarguments.h"
#include "zelcommandtype.h"

#include <QObject>
#include <QPointer>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>

/**
 * A function of the host's with its types laid open, so that the library can call it with converted words.
 *
 * Made of a lambda, a function or a method, which takes values or references to const, a ZELArguments first if it
 * likes, and returns nothing, a QVariant, or what becomes one.
 */
struct ZELCommandFunction
{
    std::function<QVariant(const ZELArguments &args, ZELCommandValue *values)> call;
    QVector<ZELCommandType> types;
    bool hasReceiver = false;
    QPointer<QObject> receiver; ///< nothing is called once it is gone
};

namespace ZELCommandTypes {

template <class... Parameters>
struct Values
{
    static constexpr bool takesRecord = false;
    using Tuple = std::tuple<Parameters...>;
};
template <class... Parameters>
struct Values<ZELArguments, Parameters...>
{
    static constexpr bool takesRecord = true;
    using Tuple = std::tuple<Parameters...>;
};

template <class Parameter>
constexpr bool isTakeable
    = !std::is_lvalue_reference_v<Parameter> || std::is_const_v<std::remove_reference_t<Parameter>>;

template <class Function>
struct Signature : Signature<decltype(&Function::operator())>
{
};
template <class Result, class... Parameters>
struct Signature<Result (*)(Parameters...)> : Values<std::decay_t<Parameters>...>
{
    static_assert((isTakeable<Parameters> && ...), "a command's function takes values or references to const");
    using Returned = Result;
};
template <class Result, class... Parameters>
struct Signature<Result (*)(Parameters...) noexcept> : Signature<Result (*)(Parameters...)>
{
};
template <class Class, class Result, class... Parameters>
struct Signature<Result (Class::*)(Parameters...)> : Signature<Result (*)(Parameters...)>
{
};
template <class Class, class Result, class... Parameters>
struct Signature<Result (Class::*)(Parameters...) const> : Signature<Result (*)(Parameters...)>
{
};
template <class Class, class Result, class... Parameters>
struct Signature<Result (Class::*)(Parameters...) noexcept> : Signature<Result (*)(Parameters...)>
{
};
template <class Class, class Result, class... Parameters>
struct Signature<Result (Class::*)(Parameters...) const noexcept> : Signature<Result (*)(Parameters...)>
{
};

template <class Taken, class Function, std::size_t... I>
decltype(auto) call(Function &function, const ZELArguments &args, ZELCommandValue *values, std::index_sequence<I...>)
{
    using Tuple = typename Taken::Tuple;
    Q_UNUSED(args)
    Q_UNUSED(values)
    if constexpr (Taken::takesRecord)
        return function(args, take<std::tuple_element_t<I, Tuple>>(values[I])...);
    else
        return function(take<std::tuple_element_t<I, Tuple>>(values[I])...);
}

template <class Tuple, std::size_t... I>
QVector<ZELCommandType> describeAll(std::index_sequence<I...>)
{
    return {describe<std::tuple_element_t<I, Tuple>>()...};
}

/// `Taken` is the signature of what the function calls.
template <class Taken, class Function>
ZELCommandFunction open(Function &&function)
{
    using Indices = std::make_index_sequence<std::tuple_size_v<typename Taken::Tuple>>;
    ZELCommandFunction opened;
    opened.types = describeAll<typename Taken::Tuple>(Indices());
    // Shared: a lambda that can only be moved is as good as others.
    opened.call = [shared = std::make_shared<std::decay_t<Function>>(std::forward<Function>(function))](
                      const ZELArguments &args, ZELCommandValue *values) -> QVariant {
        if constexpr (std::is_void_v<typename Taken::Returned>) {
            call<Taken>(*shared, args, values, Indices());
            return QVariant();
        } else {
            return result(call<Taken>(*shared, args, values, Indices()));
        }
    };
    return opened;
}

template <class Function>
ZELCommandFunction function(Function &&function)
{
    return open<Signature<std::decay_t<Function>>>(std::forward<Function>(function));
}

/// The method is one of the receiver's, or any function that is to be called only while the receiver lives.
template <class Object, class Method>
ZELCommandFunction function(Object *receiver, Method &&method)
{
    using Plain = std::decay_t<Method>;
    ZELCommandFunction opened;
    if constexpr (std::is_member_function_pointer_v<Plain>)
        opened = open<Signature<Plain>>([receiver, method](auto &&...values) -> decltype(auto) {
            return (receiver->*method)(std::forward<decltype(values)>(values)...);
        });
    else
        opened = function(std::forward<Method>(method));
    opened.hasReceiver = true;
    opened.receiver = receiver;
    return opened;
}

} // namespace ZELCommandTypes

#endif
