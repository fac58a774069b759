// Controls with a log of what they raise, and plain peers.
#pragma once

#include "platform/run_time_error.h"
#include "sockets/ctx_winsock.h"
#include "tests/support/plain_socket.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

namespace quenmark::test {

using platform::RunTimeError;
using sockets::ctxWinsock;
using sockets::WinsockData;
using testing::ElementsAre;
using Names = std::vector<std::string>;

inline constexpr std::uint32_t kAnyCertificate = 15 | tls::kFeatureIgnoreCertificateErrors;

// A control and what it has raised: "Connect", "Error 10061 8007274D"… with the state at that moment.
struct Logged {
  explicit Logged(std::shared_ptr<ctxWinsock> made) : control(std::move(made)) {
    sockets::WinsockEvents handlers;
    handlers.Connect = [this] { Note("Connect"); };
    handlers.Close = [this] { Note("Close"); };
    handlers.ConnectionRequest = [this](std::int32_t id) {
      request = id;
      Note("ConnectionRequest");
    };
    handlers.DataArrival = [this](std::int32_t total) {
      if (reads) received += Get();
      Note(reads ? "DataArrival" : fmt::format("DataArrival {}", total));
    };
    handlers.SendProgress = [this](std::int64_t sent, std::int64_t left) {
      progress.emplace_back(sent, left);
      if (act) act("SendProgress");
    };
    handlers.SendComplete = [this] { Note("SendComplete"); };
    handlers.Error = [this](std::int16_t number, const std::string& text, std::int32_t scode, const std::string&,
                            const std::string&, std::int32_t, bool& cancelDisplay) {
      description = text;
      cancelDisplay = cancels;
      Note(fmt::format("Error {} {:X}", number, static_cast<std::uint32_t>(scode)));
    };
    handlers.PropertyChanged = [this](std::string_view name) { changed.emplace_back(name); };
    control->SetEvents(std::move(handlers));
  }
  void Note(const std::string& event) {
    events.push_back(event);
    states.push_back(control->State());
    if (act) act(event);
  }
  bool Saw(const std::string& event) const { return Count(event) > 0; }
  std::ptrdiff_t Count(const std::string& event) const { return std::count(events.begin(), events.end(), event); }
  std::string Get(std::int32_t maxLen = -1) {
    WinsockData data = std::string();
    control->GetData(data, 0, maxLen);
    return std::get<std::string>(data);
  }
  std::string Peek(std::int32_t maxLen = -1) {
    WinsockData data;
    control->PeekData(data, sockets::kTypeText, maxLen);
    return std::get<std::string>(data);
  }

  std::shared_ptr<ctxWinsock> control;
  Names events;
  std::vector<std::int32_t> states;
  std::vector<std::pair<std::int64_t, std::int64_t>> progress;
  Names changed;
  std::string received;
  std::string description;
  std::int32_t request = -1;
  bool reads = true;
  bool cancels = false;
  std::function<void(const std::string&)> act;
};

class CtxWinsockTest : public testing::Test {
 protected:
  // Peers are looked at while nothing happens on this side.
  CtxWinsockTest() { m_pump.SetEnabled(true); }

  std::shared_ptr<ctxWinsock> New() { return ctxWinsock::New(m_loop, m_certificates); }
  bool Wait(const std::function<bool()>& done) {
    return m_loop.WaitUntil(done, m_clock.Monotonic() + std::chrono::seconds{20});
  }
  bool WaitFor(Logged& logged, const std::string& event) {
    return Wait([&] { return logged.Saw(event); });
  }
  void Settle() { m_loop.Sleep(std::chrono::milliseconds{10}); }

  // `m_client` connected to the plain `m_peer`, its events so far forgotten.
  void ConnectPair() {
    m_listener = Descriptor(PlainListener());
    m_client.control->Connect("127.0.0.1", PortOf(m_listener));
    m_peer = Descriptor(PlainAccept(m_listener));
    ASSERT_TRUE(WaitFor(m_client, "Connect"));
    m_client.events.clear();
    m_client.states.clear();
  }
  // Offers every connection to `accept`. Returns the port.
  int Listen(std::int32_t protocol, std::function<void()> accept, const std::string& certificates = {}) {
    m_server.control->Protocol(protocol);
    m_server.control->Bind(0, "127.0.0.1");
    m_server.control->Listen(certificates);
    m_server.act = [accept = std::move(accept)](const std::string& event) {
      if (event == "ConnectionRequest") accept();
    };
    return m_server.control->LocalPort();
  }
  void Accept() { m_client.control->Accept(m_server.request); }
  // What `m_peer` has received by now.
  std::string TakeAtPeer() {
    std::string taken;
    char part[65536];
    for (ssize_t count = 0; (count = recv(m_peer, part, sizeof part, MSG_DONTWAIT)) > 0;) {
      taken.append(part, static_cast<std::size_t>(count));
    }
    return taken;
  }
  // Whatever follows the arrival of the data is up to the test.
  void ArriveUnread(const std::string& data) {
    m_client.reads = false;
    PlainSend(m_peer, data);
    ASSERT_TRUE(WaitFor(m_client, fmt::format("DataArrival {}", data.size())));
  }

  platform::SystemClock m_clock;
  platform::MessageLoop m_loop{m_clock};
  platform::Timer m_pump{m_loop, std::chrono::milliseconds{2}, [] {}};
  std::shared_ptr<tls::CertificateServices> m_certificates = tls::MakeCertificateServices(m_loop);
  Logged m_client{New()};
  Logged m_server{New()};
  Descriptor m_listener;
  Descriptor m_peer;
};

}  // namespace quenmark::test
