// A command as one typed call: the request is encoded and sent, the answer comes back decoded.
#pragma once

#include <vorlinkit/VorlinSession.hpp>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <future>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

namespace vorlinkit {

/// What `vorlinkit::commands` says of a command, e.g. `commands::GetMachineInfo`. A message that the command does not
/// have is void.
template <typename T>
concept CommandDescription = requires {
  { T::id } -> std::convertible_to<std::uint16_t>;
  { T::name } -> std::convertible_to<std::string_view>;
  typename T::Request;
  typename T::Response;
  typename T::Notification;
};

/// A command whose request carries a payload.
template <typename T>
concept CommandWithRequest = CommandDescription<T> && !std::is_void_v<typename T::Request>;

/// A command whose request, having no payload, needs nothing from the caller.
template <typename T>
concept CommandWithoutRequest = CommandDescription<T> && std::is_void_v<typename T::Request>;

/// A command of which the machine tells news.
template <typename T>
concept NotifyingCommand = CommandDescription<T> && !std::is_void_v<typename T::Notification>;

/// A command whose request asks for its notifications.
template <typename T>
concept SubscribableCommand = NotifyingCommand<T> && CommandWithRequest<T> && requires { T::subscribing; };

/// The response, or why there is none: an Error of `VorlinSession::send`, Encode, or Decode for a payload that does not
/// fit the layout. A response may itself say that the machine refused: see its `command_error`, if it has one.
template <CommandDescription Command> using CallResult = std::expected<typename Command::Response, Error>;

/// Called once with the result, as a SendCompletion is: on the I/O thread. A request that cannot be encoded is told on
/// the calling thread, before the call returns.
template <CommandDescription Command> using CallCompletion = std::function<void(CallResult<Command>)>;

/// Called for each notification, on the I/O thread. One that does not fit the layout arrives as an Error (Decode).
template <NotifyingCommand Command>
using NotificationListener = std::function<void(std::expected<typename Command::Notification, Error>)>;

namespace detail {

template <CommandDescription Command> CallResult<Command> decodeAnswer(const std::expected<RawMessage, Error>& answer) {
  if (!answer) return std::unexpected(answer.error());
  if constexpr (std::is_void_v<typename Command::Response>)
    return {};
  else
    return Command::decodeResponse(answer->payload);
}

template <CommandDescription Command>
void sendCall(VorlinSession& session, std::span<const std::byte> payload, SendOptions options,
              CallCompletion<Command> completion) {
  session.send(Command::id, payload, options,
               [completion = std::move(completion)](const std::expected<RawMessage, Error>& answer) {
                 completion(decodeAnswer<Command>(answer));
               });
}

/// Hands `start` a completion that keeps the promise of the future.
template <CommandDescription Command, typename Start> std::future<CallResult<Command>> futureOf(Start&& start) {
  const auto promise = std::make_shared<std::promise<CallResult<Command>>>();
  start([promise](CallResult<Command> result) { promise->set_value(std::move(result)); });
  return promise->get_future();
}

} // namespace detail

/// Calls a command: `call<commands::FlushLog>(session, {.log_name = "Events"}, {}, completion)`. Any thread.
template <CommandWithRequest Command>
void call(VorlinSession& session, const typename Command::Request& request, SendOptions options,
          CallCompletion<Command> completion) {
  const auto payload = Command::encode(request);
  if (payload)
    detail::sendCall<Command>(session, *payload, options, std::move(completion));
  else
    completion(std::unexpected(payload.error()));
}

template <CommandWithoutRequest Command>
void call(VorlinSession& session, SendOptions options, CallCompletion<Command> completion) {
  detail::sendCall<Command>(session, {}, options, std::move(completion));
}

/// The same with a future, on which a callback of the session must not wait:
/// `auto info = call<commands::GetMachineInfo>(session).get();`
template <CommandWithRequest Command>
std::future<CallResult<Command>> call(VorlinSession& session, const typename Command::Request& request,
                                      SendOptions options = {}) {
  return detail::futureOf<Command>(
      [&](CallCompletion<Command> completion) { call<Command>(session, request, options, std::move(completion)); });
}

template <CommandWithoutRequest Command>
std::future<CallResult<Command>> call(VorlinSession& session, SendOptions options = {}) {
  return detail::futureOf<Command>(
      [&](CallCompletion<Command> completion) { call<Command>(session, options, std::move(completion)); });
}

/// Has a listener told of every notification of a command, in place of the handler that its id had. For those that
/// come unasked. `session.on_notification(Command::id, {})` ends it.
template <NotifyingCommand Command> void listen(VorlinSession& session, NotificationListener<Command> listener) {
  session.on_notification(Command::id, [listener = std::move(listener)](const RawMessage& message) {
    listener(Command::decodeNotification(message.payload));
  });
}

/// Listens to a command's notifications, then asks the machine for them. A notification level that was left at 0, which
/// would ask for none, is sent as 1. The listener stays whatever becomes of the request. A subscription ends with its
/// connection.
template <SubscribableCommand Command>
void subscribe(VorlinSession& session, typename Command::Request request, NotificationListener<Command> listener,
               SendOptions options, CallCompletion<Command> completion) {
  if (request.*Command::subscribing == 0) request.*Command::subscribing = 1;
  listen<Command>(session, std::move(listener));
  call<Command>(session, request, options, std::move(completion));
}

/// The same with a future of the response: only when it says so does the machine send notifications.
template <SubscribableCommand Command>
std::future<CallResult<Command>> subscribe(VorlinSession& session, typename Command::Request request,
                                           NotificationListener<Command> listener, SendOptions options = {}) {
  return detail::futureOf<Command>([&](CallCompletion<Command> completion) {
    subscribe<Command>(session, std::move(request), std::move(listener), options, std::move(completion));
  });
}

} // namespace vorlinkit
