// Tradier's event stream: the connection, the streaming session, the subscription and what arrives.
#pragma once

#include "feeder/tradier_events.h"
#include "platform/message_loop.h"
#include "providers/context.h"
#include "providers/open_charts.h"
#include "websocket/websocket.h"

#include <string>
#include <string_view>

namespace quenmark::feeder {

class TradierStream {
 public:
  // `subscribed` is the list that the provider branch last acted on; it belongs to the main form, as `open` and the
  // timer of the delayed exit (`TimerClose`) do.
  TradierStream(providers::Context& context, const providers::OpenSymbols& open, std::string& subscribed,
                platform::Timer& closeTimer, websocket::WebsocketServices services);

  // Whether the stream is open. When it is not, a connection is begun, over any that is still in the making, and the
  // subscription is forgotten.
  bool IsOpenOrConnect();
  // Subscribes the open symbols when they have changed, after a snapshot of them.
  void FollowCharts();
  // Sends the subscription, with a new streaming session when none is stored.
  void SubscribeSymbols();

 private:
  websocket::WebsocketEvents Handlers();
  void OnMessage(std::string_view text);
  // Ends the program when the broker gives no session.
  void CreateSession();

  providers::Context& m_context;
  const providers::OpenSymbols& m_open;
  std::string& m_subscribed;
  platform::Timer& m_closeTimer;
  TradierEvents m_events;
  bool m_creatingSession = false;
  websocket::Websocket m_ws;
};

}  // namespace quenmark::feeder
