#include "sockets/ctx_winsock.h"

#include "platform/run_time_error.h"
#include "tests/support/child_process.h"
#include "tests/support/plain_socket.h"
#include "tests/support/temporary_folder.h"

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
namespace {

using platform::RunTimeError;
using sockets::ctxWinsock;
using sockets::WinsockData;
using testing::ElementsAre;
using Names = std::vector<std::string>;

constexpr std::uint32_t kAnyCertificate = 15 | tls::kFeatureIgnoreCertificateErrors;

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
  bool Saw(const std::string& event) const { return std::count(events.begin(), events.end(), event) > 0; }
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
  void Listen(std::int32_t protocol) {
    m_server.control->Protocol(protocol);
    m_server.control->Bind(0, "127.0.0.1");
    m_server.control->Listen();
    m_server.act = [this](const std::string& event) {
      if (event == "ConnectionRequest") m_client.control->Accept(m_server.request);
    };
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

// --- The life of a connection ----------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, StatesOfAnOutgoingConnection) {
  m_listener = Descriptor(PlainListener());
  EXPECT_EQ(m_client.control->State(), 0);
  m_client.control->Connect("localhost", PortOf(m_listener));
  EXPECT_EQ(m_client.control->State(), 7);
  ASSERT_TRUE(Wait([&] { return m_client.control->State() == 5; }));  // the name is resolved
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  m_peer = Descriptor(PlainAccept(m_listener));
  EXPECT_EQ(m_client.control->RemoteHostIP(), "127.0.0.1");
  EXPECT_EQ(m_client.control->RemotePort(), PortOf(m_listener));
  EXPECT_NE(m_client.control->LocalPort(), 0);
  EXPECT_FALSE(m_client.control->LocalHostName().empty());
  PlainSend(m_peer, "last words");
  m_peer.Close();
  ASSERT_TRUE(WaitFor(m_client, "Close"));
  EXPECT_EQ(m_client.received, "last words");
  EXPECT_EQ(m_client.events, (Names{"Connect", "DataArrival", "Close"}));
  EXPECT_THAT(m_client.states, ElementsAre(7, 7, 8));
  EXPECT_EQ(m_client.control->State(), 0);
  EXPECT_EQ(m_client.control->LocalPort(), 0);
}

TEST_F(CtxWinsockTest, AConnectionMadeInTheCloseHandlerStays) {
  ConnectPair();
  m_client.act = [&](const std::string& event) {
    if (event == "Close") m_client.control->Connect();
  };
  m_peer.Close();
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  m_peer = Descriptor(PlainAccept(m_listener));
  EXPECT_EQ(m_client.control->State(), 7);
  m_client.control->SendData("again");
  EXPECT_EQ(PlainReceive(m_peer, 5), "again");
}

TEST_F(CtxWinsockTest, FailuresAreEventsAndFaults) {
  m_listener = Descriptor(PlainListener());
  const int port = PortOf(m_listener);
  m_listener.Close();
  m_client.control->Connect("127.0.0.1", port);
  ASSERT_TRUE(WaitFor(m_client, "Error 10061 8007274D"));
  EXPECT_THAT(m_client.states, ElementsAre(9));
  EXPECT_FALSE(m_client.description.empty());
  m_client.control->Close_();
  EXPECT_EQ(m_client.control->State(), 0);

  const Descriptor other(PlainListener());
  struct Case {
    std::function<void(ctxWinsock&)> call;
    std::int32_t number;
  };
  const Case cases[] = {
      {[&](ctxWinsock& control) { control.Bind(PortOf(other), "127.0.0.1"); }, 10048},
      {[](ctxWinsock& control) { control.Listen(); }, 10022},  // not bound
      {[](ctxWinsock& control) { control.Connect("127.0.0.1", 70000); }, 10022},
      {[](ctxWinsock& control) { control.Accept(12345); }, static_cast<std::int32_t>(0x80072736)},  // no such handle
  };
  for (const Case& each : cases) {
    for (const bool cancels : {false, true}) {
      Logged logged(New());
      logged.cancels = cancels;
      std::int32_t number = 0;
      try {
        each.call(*logged.control);
      } catch (const RunTimeError& error) {
        number = error.Number();
      }
      EXPECT_EQ(number, cancels ? 0 : each.number);
      EXPECT_THAT(logged.events, ElementsAre(fmt::format("Error {} {:X}", each.number & 0x7FFF,
                                                         static_cast<std::uint32_t>(each.number))));
      EXPECT_EQ(logged.control->State(), 9);
    }
  }
}

TEST_F(CtxWinsockTest, ResetByThePeer) {
  ConnectPair();
  PlainReset(m_peer);
  ASSERT_TRUE(WaitFor(m_client, "Error 10054 80072746"));
  EXPECT_EQ(m_client.control->State(), 9);
  m_client.control->Close_();
  Settle();
  EXPECT_EQ(m_client.events.size(), 1u);
}

// Whichever event it is dropped in, the control says no more and nothing of it is touched.
TEST_F(CtxWinsockTest, DroppedInAHandler) {
  for (const std::string last : {"Connect", "SendProgress", "SendComplete", "DataArrival", "Close"}) {
    m_listener = Descriptor(PlainListener());
    Logged logged(New());
    bool dropped = false;
    logged.act = [&](const std::string& event) {
      EXPECT_FALSE(dropped) << event << " after " << last;
      dropped = event == last;
      if (dropped) logged.control.reset();
    };
    const auto control = std::weak_ptr(logged.control);
    logged.control->Connect("127.0.0.1", PortOf(m_listener));
    m_peer = Descriptor(PlainAccept(m_listener));
    PlainSend(m_peer, "data");
    ASSERT_TRUE(Wait([&] { return dropped || logged.Saw("Connect"); }));
    if (!dropped) logged.control->SendData("request");
    if (last == "Close") {
      ASSERT_TRUE(WaitFor(logged, "DataArrival"));
      EXPECT_EQ(PlainReceive(m_peer, 7), "request");
      m_peer.Close();
    }
    ASSERT_TRUE(Wait([&] { return dropped; }));
    Settle();
    EXPECT_TRUE(control.expired()) << last;
  }
}

// --- Receiving -------------------------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, GetDataAndPeekData) {
  ConnectPair();
  ArriveUnread("0123456789");
  EXPECT_EQ(m_client.Peek(3), "012");
  EXPECT_EQ(m_client.Peek(2), "34");  // on from the socket, not from what was peeked
  EXPECT_EQ(m_client.Get(2), "01");
  EXPECT_EQ(m_client.Get(0), "");
  EXPECT_EQ(m_client.Get(99), "234");  // what was peeked comes alone
  EXPECT_EQ(m_client.Get(1), "5");
  EXPECT_EQ(m_client.Peek(), "6789");
  EXPECT_EQ(m_client.Peek(), "");
  EXPECT_EQ(m_client.Get(), "6789");
  EXPECT_EQ(m_client.Get(), "");
  PlainSend(m_peer, "\xE9t\xE9");
  EXPECT_EQ(m_client.Get(3), "\u00E9t\u00E9");  // Windows-1252
  WinsockData bytes;
  PlainSend(m_peer, "\x80z");
  m_client.control->GetData(bytes, sockets::kTypeBytes, 2);
  EXPECT_EQ(std::get<tls::Bytes>(bytes), (tls::Bytes{0x80, 'z'}));
}

TEST_F(CtxWinsockTest, ReadsWaitUpToTheTimeout) {
  ConnectPair();
  m_client.reads = false;
  m_client.control->Timeout(20);
  PlainSend(m_peer, "ab");
  EXPECT_EQ(m_client.Get(5), "ab");  // the time is up
  m_client.control->Timeout(20'000);
  PlainSend(m_peer, "cd");
  m_peer.Close();
  EXPECT_EQ(m_client.Get(5), "cd");  // the peer has closed
  EXPECT_FALSE(m_client.Saw("Close"));
  ASSERT_TRUE(WaitFor(m_client, "Close"));  // not lost in the wait
}

TEST_F(CtxWinsockTest, ReadsLeaveTheRestToAnotherArrival) {
  ConnectPair();
  m_client.reads = false;
  std::string taken;
  m_client.act = [&](const std::string& event) {
    if (event.starts_with("DataArrival")) taken += m_client.Get(4);
  };
  PlainSend(m_peer, "0123456789");
  ASSERT_TRUE(Wait([&] { return taken.size() >= 8; }));
  EXPECT_EQ(taken.substr(0, 8), "01234567");
}

TEST_F(CtxWinsockTest, TypesThatAreNone) {
  const auto fault = [](const std::function<void()>& call) {
    try {
      call();
    } catch (const RunTimeError& error) {
      EXPECT_EQ(error.Number(), static_cast<std::int32_t>(0x80040000));
      return error.Description();
    }
    return std::string("none");
  };
  WinsockData number = 5;
  EXPECT_EQ(fault([&] { m_client.control->SendData(number); }), "Unsupported data type: Long");
  EXPECT_EQ(fault([&] { m_client.control->SendData(WinsockData(1.5)); }), "Unsupported data type: Double");
  EXPECT_EQ(fault([&] { m_client.control->GetData(number); }), "Unsupported data type: 3");
  EXPECT_EQ(fault([&] { m_client.control->PeekData(number, 11); }), "Unsupported data type: 11");
  EXPECT_TRUE(m_client.events.empty());
}

// --- Sending ---------------------------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, PartialSends) {
  ConnectPair();
  m_client.control->SockOpt(platform::kSoSendBuffer, platform::kSolSocket, 32 * 1024);
  std::string data(6'000'000, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 7919) >> 3);
  m_client.control->SendData(tls::Bytes(data.begin(), data.end() - 5));
  EXPECT_FALSE(m_client.Saw("SendComplete"));
  m_client.control->SendData(tls::Bytes(data.end() - 5, data.end()));
  std::string taken;
  char part[65536];
  ASSERT_TRUE(Wait([&] {
    for (ssize_t count = 0; (count = recv(m_peer, part, sizeof part, MSG_DONTWAIT)) > 0;) {
      taken.append(part, static_cast<std::size_t>(count));
    }
    return taken.size() == data.size();
  }));
  ASSERT_TRUE(WaitFor(m_client, "SendComplete"));
  EXPECT_TRUE(taken == data);
  EXPECT_EQ(m_client.events, Names{"SendComplete"});
  EXPECT_GT(m_client.progress.size(), 2u);
  for (std::size_t i = 1; i < m_client.progress.size(); ++i) {
    EXPECT_GT(m_client.progress[i].first, m_client.progress[i - 1].first);
  }
  EXPECT_EQ(m_client.progress.back(), (std::pair<std::int64_t, std::int64_t>(6'000'000, 0)));
}

TEST_F(CtxWinsockTest, AnotherRemotePortDiscardsWhatWaits) {
  ConnectPair();
  m_client.control->SendData(tls::Bytes(8'000'000));
  m_client.control->RemotePort(1);
  std::size_t taken = 0;
  char part[65536];
  ASSERT_TRUE(Wait([&] {
    const ssize_t count = recv(m_peer, part, sizeof part, MSG_DONTWAIT);
    if (count > 0) taken += static_cast<std::size_t>(count);
    return count < 0 && taken > 0;
  }));
  Settle();
  EXPECT_LT(taken, 8'000'000u);
  EXPECT_FALSE(m_client.Saw("SendComplete"));
  m_client.control->SendData("next");
  ASSERT_TRUE(WaitFor(m_client, "SendComplete"));
}

TEST_F(CtxWinsockTest, SendingFromTheSendHandlers) {
  ConnectPair();
  int round = 0;
  m_client.act = [&](const std::string& event) {
    if (event == "SendProgress" && round++ == 0) m_client.control->SendData("two ");
    if (event == "SendComplete" && round++ == 2) m_client.control->SendData("three");
  };
  m_client.control->SendData("one ");
  EXPECT_EQ(PlainReceive(m_peer, 13), "one two three");
  EXPECT_EQ(m_client.events, (Names{"SendComplete", "SendComplete"}));
}

TEST_F(CtxWinsockTest, SendingWithoutAConnection) {
  m_client.control->SendData("nobody");
  EXPECT_EQ(m_client.events, (Names{"Connect", "Error 10058 274A"}));
  EXPECT_EQ(m_client.control->State(), 9);
}

TEST_F(CtxWinsockTest, Datagrams) {
  for (Logged* each : {&m_client, &m_server}) {
    each->control->Protocol(sockets::kProtocolUdp);
    each->control->Bind(0, "127.0.0.1");
    EXPECT_EQ(each->control->State(), 1);
  }
  m_client.control->RemoteHost("localhost");
  m_client.control->RemotePort(m_server.control->LocalPort());
  m_client.control->SendData("question");
  ASSERT_TRUE(WaitFor(m_server, "DataArrival"));
  EXPECT_EQ(m_server.received, "question");
  m_server.control->RemoteHost("127.0.0.1");
  m_server.control->RemotePort(m_client.control->LocalPort());
  m_server.control->SendData("answer");
  ASSERT_TRUE(WaitFor(m_client, "DataArrival"));
  EXPECT_EQ(m_client.received, "answer");
  EXPECT_EQ(m_client.control->State(), 1);
  m_client.control->Connect();
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  EXPECT_EQ(m_client.control->State(), 7);
}

// --- Listening -------------------------------------------------------------------------------------------------------

TEST_F(CtxWinsockTest, AcceptedByAnotherControl) {
  Listen(sockets::kProtocolTcp);
  EXPECT_EQ(m_server.control->State(), 2);
  m_peer = Descriptor(PlainConnect(m_server.control->LocalPort()));
  PlainSend(m_peer, "early");
  m_client.act = [&](const std::string& event) {
    if (event == "Connect") m_client.received = m_client.Peek();
  };
  ASSERT_TRUE(WaitFor(m_server, "ConnectionRequest"));
  EXPECT_THAT(m_server.states, ElementsAre(3));
  EXPECT_EQ(m_server.control->State(), 2);
  EXPECT_EQ(m_client.control->State(), 0);
  EXPECT_EQ(m_client.control->SocketHandle(), m_server.request);  // the very socket
  ASSERT_TRUE(WaitFor(m_client, "Connect"));
  EXPECT_EQ(m_client.received, "early");
  EXPECT_EQ(m_client.Get(), "early");
  m_client.control->Close_();
  EXPECT_EQ(m_client.control->State(), 0);
  EXPECT_TRUE(AtEnd(m_peer));
}

// What is given to an accepted connection before its first event goes out, in order.
TEST_F(CtxWinsockTest, DataBeforeTheFirstEventIsKept) {
  for (const std::int32_t protocol : {sockets::kProtocolTcp, sockets::kProtocolTls}) {
    Listen(protocol);
    m_server.act = [&](const std::string& event) {
      if (event != "ConnectionRequest") return;
      m_client.control->Accept(m_server.request);
      m_client.control->SendData("one ");
      m_client.control->SendData("two");
    };
    m_client.act = [&](const std::string& event) {
      if (event == "Connect") m_client.control->SendData("\nthree\n");
    };
    const int port = m_server.control->LocalPort();
    if (protocol == sockets::kProtocolTcp) {
      m_peer = Descriptor(PlainConnect(port));
      ASSERT_TRUE(WaitFor(m_client, "Connect"));
      EXPECT_EQ(PlainReceive(m_peer, 14), "one \nthree\ntwo");
    } else {
      ChildProcess peer("openssl", {"s_client", "-quiet", "-connect", fmt::format("127.0.0.1:{}", port)});
      ASSERT_TRUE(WaitFor(m_client, "SendComplete"));
      m_client.control->Close_();
      ASSERT_TRUE(Wait([&] { return !peer.Running(); }));
      EXPECT_EQ(peer.ReadAll(), "one \nthree\ntwo");
    }
    EXPECT_EQ(std::count(m_client.events.begin(), m_client.events.end(), "Connect"), 1);
    m_client.events.clear();
    m_server.control->Close_();
  }
}

TEST_F(CtxWinsockTest, AcceptedByTheListenerItself) {
  Listen(sockets::kProtocolTcp);
  m_server.act = [&](const std::string& event) {
    if (event == "ConnectionRequest") m_server.control->Accept(m_server.request);
  };
  const int port = m_server.control->LocalPort();
  m_peer = Descriptor(PlainConnect(port));
  ASSERT_TRUE(WaitFor(m_server, "Connect"));
  EXPECT_EQ(m_server.control->State(), 7);
  PlainSend(m_peer, "data");
  ASSERT_TRUE(Wait([&] { return m_server.received == "data"; }));
}

TEST_F(CtxWinsockTest, RefusedOrForeignRequests) {
  Listen(sockets::kProtocolTcp);
  m_server.act = {};
  m_peer = Descriptor(PlainConnect(m_server.control->LocalPort()));
  ASSERT_TRUE(WaitFor(m_server, "ConnectionRequest"));
  EXPECT_TRUE(AtEnd(m_peer));  // nobody took it

  // A handle from elsewhere is doubled; the original stays its owner's.
  ConnectPair();
  Logged second(New());
  const int handle = m_client.control->SocketHandle();
  second.control->Accept(handle);
  EXPECT_NE(second.control->SocketHandle(), handle);
  ASSERT_TRUE(WaitFor(second, "Connect"));
  second.control->SendData("still here");
  EXPECT_EQ(PlainReceive(m_peer, 10), "still here");
}

// --- Properties ------------------------------------------------------------------------------------------------------

struct Bag final : sockets::PropertyBag {
  std::map<std::string, std::string, std::less<>> values;
  std::int32_t ReadNumber(std::string_view name, std::int32_t otherwise) override {
    const auto found = values.find(name);
    return found == values.end() ? otherwise : std::stoi(found->second);
  }
  std::string ReadText(std::string_view name, std::string_view otherwise) override {
    const auto found = values.find(name);
    return found == values.end() ? std::string(otherwise) : found->second;
  }
  void WriteNumber(std::string_view name, std::int32_t value, std::int32_t otherwise) override {
    if (value != otherwise) values.insert_or_assign(std::string(name), std::to_string(value));
  }
  void WriteText(std::string_view name, std::string_view value, std::string_view otherwise) override {
    if (value != otherwise) values.insert_or_assign(std::string(name), std::string(value));
  }
};

TEST_F(CtxWinsockTest, PersistedProperties) {
  Bag bag;
  m_client.control->WriteProperties(bag);
  EXPECT_TRUE(bag.values.empty());  // the defaults
  EXPECT_EQ(m_client.control->Timeout(), 5000);
  m_client.control->LocalPort(1);
  m_client.control->Protocol(2);
  m_client.control->RemoteHost("host");
  m_client.control->RemotePort(3);
  m_client.control->Timeout(4);
  m_client.control->Timeout(4);
  EXPECT_EQ(m_client.changed, (Names{"LocalPort", "Protocol", "RemoteHost", "RemotePort", "Timeout", "Timeout"}));
  m_client.control->WriteProperties(bag);
  EXPECT_EQ(bag.values.size(), 5u);
  const auto copy = New();
  copy->ReadProperties(bag);
  Bag again;
  copy->WriteProperties(again);
  EXPECT_EQ(again.values, bag.values);
  EXPECT_EQ(again.values.at("RemoteHost"), "host");
}

TEST_F(CtxWinsockTest, AnotherLocalPortOrProtocolCloses) {
  for (const bool port : {true, false}) {
    ConnectPair();
    m_client.control->RemotePort(9);
    EXPECT_EQ(m_client.control->State(), 7);
    port ? m_client.control->LocalPort(0) : m_client.control->Protocol(0);  // no change
    EXPECT_EQ(m_client.control->State(), 7);
    port ? m_client.control->LocalPort(9) : m_client.control->Protocol(2);
    EXPECT_EQ(m_client.control->State(), 0);
    EXPECT_TRUE(AtEnd(m_peer));
  }
}

// --- TLS peers of other makes ----------------------------------------------------------------------------------------

class CtxWinsockTls : public CtxWinsockTest {
 protected:
  CtxWinsockTls() {
    ChildProcess make("openssl", {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                                  "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-keyout", m_key,
                                  "-out", m_certificate});
    EXPECT_EQ(make.Wait(), 0);
    m_listener = Descriptor(PlainListener());
    m_port = PortOf(m_listener);
    m_listener.Close();
    m_client.control->Protocol(sockets::kProtocolTls);
    m_client.control->RemoteHost("localhost");
    m_client.control->RemotePort(m_port);
  }
  // The peer needs a moment until it listens.
  bool ConnectAgainAndAgain() {
    return Wait([&] {
      if (m_client.Saw("Connect")) return true;
      if (m_client.control->State() == 9 || m_client.control->State() == 0) {
        m_client.control->Connect({}, 0, kAnyCertificate);
      }
      return false;
    });
  }

  TemporaryFolder m_folder;
  std::string m_key = m_folder.File("key.pem");
  std::string m_certificate = m_folder.File("certificate.pem");
  int m_port = 0;
};

TEST_F(CtxWinsockTls, ClientOfOtherServers) {
  const Names servers[] = {
      {"openssl", "s_server", "-quiet", "-accept", std::to_string(m_port), "-cert", m_certificate, "-key", m_key,
       "-rev"},
      {"gnutls-serv", "--echo", "--port", std::to_string(m_port), "--x509certfile", m_certificate, "--x509keyfile",
       m_key, "--disable-client-cert"},
  };
  for (const Names& command : servers) {
    ChildProcess server(command[0], {command.begin() + 1, command.end()});
    ASSERT_TRUE(ConnectAgainAndAgain()) << command[0];
    m_client.control->SendData("level\n");
    ASSERT_TRUE(Wait([&] { return m_client.received == "level\n"; })) << command[0];
    EXPECT_TRUE(m_client.Saw("SendComplete"));
    m_client.control->Close_();

    // A server that nobody vouches for is an error, and no connection.
    Logged strict(New());
    strict.control->Protocol(sockets::kProtocolTls);
    strict.control->Connect("localhost", m_port, 15);
    ASSERT_TRUE(WaitFor(strict, "Error 0 80040000")) << command[0];
    EXPECT_EQ(strict.description, "The certificate or certificate chain is based on an untrusted root");
    EXPECT_FALSE(strict.Saw("Connect"));
    m_client.events.clear();
    m_client.received.clear();
  }
}

TEST_F(CtxWinsockTls, ServerOfOtherClients) {
  ASSERT_EQ(mkfifo(m_folder.File("typed").c_str(), 0600), 0);
  const Descriptor typed(open(m_folder.File("typed").c_str(), O_RDWR | O_CLOEXEC));
  for (const bool own : {true, false}) {  // a certificate of its own making or from a file
    m_server.control->Protocol(sockets::kProtocolTls);
    m_server.control->Bind(0, "127.0.0.1");
    own ? m_server.control->Listen() : m_server.control->Listen(m_certificate + "|" + m_key);
    m_server.act = [this](const std::string& event) {
      if (event == "ConnectionRequest") m_client.control->Accept(m_server.request);
    };
    const std::string port = std::to_string(m_server.control->LocalPort());
    const Names clients[] = {{"openssl", "s_client", "-quiet", "-connect", "127.0.0.1:" + port},
                             {"gnutls-cli", "--insecure", "--logfile=/dev/null", "--port", port, "127.0.0.1"}};
    for (const Names& command : clients) {
      ASSERT_EQ(write(typed, "question\n", 9), 9);
      m_client.reads = false;
      std::string first;
      m_client.act = [&](const std::string& event) {
        if (!event.starts_with("DataArrival")) return;
        if (first.empty()) {
          first = m_client.Get(3);  // the rest stays and arrives again
        } else {
          m_client.received += m_client.Get();
        }
        if (m_client.received.ends_with("\n")) m_client.control->SendData("answer\n");
        if (m_client.received.ends_with("\n")) m_client.control->Close_();
      };
      std::string line = fmt::format("exec <'{}'", m_folder.File("typed"));  // with more to come
      for (const std::string& word : command) line += (&word == &command[0] ? "; exec " : " ") + word;
      ChildProcess peer("sh", {"-c", line});
      ASSERT_TRUE(Wait([&] { return !m_client.received.empty(); }))
          << command[0] << testing::PrintToString(m_client.events) << m_client.description << peer.ErrorText();
      EXPECT_EQ(first + m_client.received, "question\n");
      EXPECT_THAT(peer.ReadAll(), testing::EndsWith("answer\n")) << command[0];
      EXPECT_EQ(std::count(m_client.events.begin(), m_client.events.end(), "Connect"), 1);
      m_client.events.clear();
      m_client.received.clear();
    }
    m_server.control->Close_();
  }
}

// What has been decrypted when the peer ends the connection is offered before Close.
TEST_F(CtxWinsockTls, UnreadDataComesBeforeTheClose) {
  Listen(sockets::kProtocolTls);
  m_client.reads = false;
  m_client.act = [&](const std::string& event) {
    if (event.starts_with("DataArrival")) m_client.received += m_client.Get(4);
  };
  const ChildProcess peer("gnutls-cli",
                          {"--insecure", "--port", std::to_string(m_server.control->LocalPort()), "127.0.0.1"},
                          {{}, {}, "question\n"});  // then it closes
  ASSERT_TRUE(WaitFor(m_client, "Close"));
  EXPECT_EQ(m_client.received, "question\n");
  EXPECT_EQ(m_client.events.back(), "Close");
}

// Everything a TLS socket has taken is out before SendComplete, also when the peer reads no further for a while.
TEST_F(CtxWinsockTls, CompleteOnlyWhenEverythingIsOut) {
  ChildProcess server("openssl", {"s_server", "-quiet", "-accept", std::to_string(m_port), "-cert", m_certificate,
                                  "-key", m_key, "-rev"});
  m_client.reads = false;
  ASSERT_TRUE(ConnectAgainAndAgain());
  m_client.control->SockOpt(platform::kSoReceiveBuffer, platform::kSolSocket, 32 * 1024);
  m_client.control->SockOpt(platform::kSoSendBuffer, platform::kSolSocket, 32 * 1024);
  constexpr int kLines = 5000;
  std::string text;
  for (int i = 0; i < kLines; ++i) text += fmt::format("{:04}{}\n", i, std::string(3995, 'x'));
  m_client.control->SendData(text);
  m_loop.Sleep(std::chrono::milliseconds{100});
  EXPECT_FALSE(m_client.Saw("SendComplete"));  // the peer waits until its echo is taken
  m_client.reads = true;
  m_client.received = m_client.Get();
  ASSERT_TRUE(Wait([&] { return m_client.received.size() == text.size(); }));
  EXPECT_EQ(std::count(m_client.events.begin(), m_client.events.end(), "SendComplete"), 1);
  EXPECT_TRUE(m_client.received.ends_with("9994\n"));
}

}  // namespace
}  // namespace quenmark::test
