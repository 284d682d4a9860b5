// qvcl for C++: callbacks with captures, for those who want no coroutines.
//
//     auto tick = every(250ms, [&] { work(); });
//     auto stop = on_signal(SIGTERM, [&](const Signal &) { rt.stop(); });
//     auto input = on_readable(fd, [&](uint32_t ready) { ... });
//     auto serving = on_connection(server, limits, [&](Connection c) { keep(std::move(c)); });
//     auto client = on_message(connection, [&](const Message &m) { ... }, [&](const Error &why)
//     {});
//
// Each is a small task that waits and calls, so all that holds for tasks holds here: destroying the
// handle ends it, at any time, in the function too; an exception comes out of Runtime::run(). What
// a handle was made for (server, connection, descriptor) must live as long as that.
#pragma once

#include <qvcl/cpp/descriptor.hpp>
#include <qvcl/cpp/message.hpp>
#include <qvcl/cpp/time.hpp>

namespace qvcl {
inline namespace cpp {

/// Something that goes on until it is destroyed.
using Callback = Running<>;

namespace detail {

inline Callback callback(Task<> task, const Location &at) {
    auto &promise = adopt(task.release(), false, at);
    promise.escapes = true;
    return Callback(promise);
}

// Nobody is there to be told why there is no more to wait for, so the Error is raised; but not when
// what was waited for is gone.
template <class T>
bool goes_on(const Result<T> &result) {
    if (result) return true;
    if (result.error() == ECANCELED || result.error() == CL_ERR_STATE) return false;
    raise(result.error());
}

template <class Function>
Task<> call_every(std::chrono::nanoseconds period, Function function, Location at) {
    Ticker ticker(period, at);
    while (goes_on(co_await ticker.next(at)))
        function();
}
template <class Function>
Task<> call_after(std::chrono::nanoseconds duration, Function function, Location at) {
    co_await after(duration, at);
    function();
}
template <class Function>
Task<> call_on_signal(int signal, Function function, Location at) {
    Signals signals(signal, 0, 0, 0, 0, 0, 0, 0, at);
    for (;;) {
        auto came = co_await signals.next(at);
        if (!goes_on(came)) co_return;
        function(*came);
    }
}
template <class Function>
Task<> call_on_ready(int fd, bool write, Function function, Location at) {
    Watch watch(fd, at);
    for (;;) {
        auto ready = co_await (write ? watch.writable(at) : watch.readable(at));
        if (!goes_on(ready)) co_return;
        function(*ready);
    }
}
template <class Function>
Task<> call_on_connection(Server &server, Limits limits, Function function, Location at) {
    for (;;) {
        auto connection = co_await server.accept(limits, at);
        if (!goes_on(connection)) co_return;
        function(std::move(*connection));
    }
}
template <class OnMessage, class OnEnd>
Task<> call_on_message(Connection &connection, OnMessage on_message, OnEnd on_end, Location at) {
    for (;;) {
        auto message = co_await connection.receive(at);
        if (!message) {
            on_end(message.error());
            co_return;
        }
        on_message(*message);
    }
}

}  // namespace detail

/// Calls `function()` at a fixed distance; turns that were missed are not made up for.
template <class Function>
Callback every(std::chrono::nanoseconds period, Function function, Location at = {}) {
    return detail::callback(detail::call_every(period, std::move(function), at), at);
}
/// Calls `function()` once, after a while.
template <class Function>
Callback call_after(std::chrono::nanoseconds duration, Function function, Location at = {}) {
    return detail::callback(detail::call_after(duration, std::move(function), at), at);
}
/// Calls `function(const Signal &)` whenever the signal comes.
template <class Function>
Callback on_signal(int signal, Function function, Location at = {}) {
    return detail::callback(detail::call_on_signal(signal, std::move(function), at), at);
}
/// Calls `function(uint32_t ready)` while the descriptor can be read; ready: CL_NEST_... bits.
template <class Function>
Callback on_readable(int fd, Function function, Location at = {}) {
    return detail::callback(detail::call_on_ready(fd, false, std::move(function), at), at);
}
/// Calls `function(uint32_t ready)` while the descriptor can be written.
template <class Function>
Callback on_writable(int fd, Function function, Location at = {}) {
    return detail::callback(detail::call_on_ready(fd, true, std::move(function), at), at);
}
/// Calls `function(Connection)` for everybody who connects.
template <class Function>
Callback on_connection(Server &server, const Limits &limits, Function function, Location at = {}) {
    return detail::callback(detail::call_on_connection(server, limits, std::move(function), at),
                            at);
}
/// Calls `on_message(const Message &)` for every message, and `on_end(const Error &)` once, when
/// the connection has come to its end.
template <class OnMessage, class OnEnd>
Callback on_message(Connection &connection, OnMessage on_message, OnEnd on_end, Location at = {}) {
    return detail::callback(
        detail::call_on_message(connection, std::move(on_message), std::move(on_end), at), at);
}

}  // namespace cpp
}  // namespace qvcl
