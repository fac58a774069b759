// The feeder's live session glued together from libraries: Boost.Beast over libssl, RapidJSON and SQLite. It does the
// same session, keeps the same records under the same guard and upserts one row per event, so that the feeder can be
// compared with what one would otherwise write.
//
// usage: glued_client PORT CA_FILE DATABASE MINUTES_WEST, with one symbol per line on standard input
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <rapidjson/document.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quenmark::bench {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using Tls = asio::ssl::stream<asio::ip::tcp::socket>;

constexpr const char* kHost = "localhost";

// --- REST and stream ---

class Broker {
 public:
  Broker(std::string port, const std::string& caFile) : m_port(std::move(port)) {
    m_tls.load_verify_file(caFile);
    m_tls.set_verify_mode(asio::ssl::verify_peer);
  }

  template <typename Layer>
  void Open(Layer& tls) {
    asio::ip::tcp::resolver resolver(m_context);
    asio::connect(tls.next_layer(), resolver.resolve(kHost, m_port));
    tls.next_layer().set_option(asio::ip::tcp::no_delay(true));
    SSL_set_tlsext_host_name(tls.native_handle(), kHost);
    tls.set_verify_callback(asio::ssl::host_name_verification(kHost));
    tls.handshake(asio::ssl::stream_base::client);
  }

  std::string Ask(http::verb verb, const std::string& path) {
    Tls tls(m_context, m_tls);
    Open(tls);
    http::request<http::empty_body> request{verb, "/v1/" + path, 11};
    request.set(http::field::host, kHost);
    request.set(http::field::authorization, "Bearer bench-token");
    request.set(http::field::accept, "application/json");
    request.prepare_payload();
    http::write(tls, request);
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(std::size_t{64} << 20);
    http::read(tls, buffer, parser);
    if (parser.get().result() != http::status::ok) throw std::runtime_error("refused: " + path);
    return std::move(parser.get().body());
  }

  asio::io_context& Context() { return m_context; }
  asio::ssl::context& TlsContext() { return m_tls; }

 private:
  std::string m_port;
  asio::io_context m_context;
  asio::ssl::context m_tls{asio::ssl::context::tls_client};
};

// --- Store ---

class Store {
 public:
  explicit Store(const char* file) {
    Check(sqlite3_open(file, &m_database));
    Check(sqlite3_exec(m_database,
                       "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                       "CREATE TABLE IF NOT EXISTS record(key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;"
                       "CREATE TABLE IF NOT EXISTS minute_bar(key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID",
                       nullptr, nullptr, nullptr));
    Prepare("INSERT INTO record VALUES(?1, ?2) ON CONFLICT(key) DO UPDATE SET value = excluded.value", m_upsert);
    Prepare("DELETE FROM minute_bar", m_forgetBars);
  }
  ~Store() {
    sqlite3_finalize(m_upsert);
    sqlite3_finalize(m_forgetBars);
    sqlite3_close(m_database);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  void Save(std::string_view key, std::string_view value) {
    sqlite3_bind_text(m_upsert, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_text(m_upsert, 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    Run(m_upsert);
  }
  void ForgetBars() { Run(m_forgetBars); }

 private:
  void Prepare(const char* sql, sqlite3_stmt*& statement) {
    Check(sqlite3_prepare_v3(m_database, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
  }
  void Run(sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE) Check(sqlite3_errcode(m_database));
    sqlite3_reset(statement);
  }
  void Check(int code) {
    if (code != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(m_database));
  }

  sqlite3* m_database = nullptr;
  sqlite3_stmt* m_upsert = nullptr;
  sqlite3_stmt* m_forgetBars = nullptr;
};

// --- Values ---

double ToNumber(std::string_view text) {
  double value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

void AppendNumber(std::string& text, double value) {
  std::array<char, 400> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed).ptr;
  text.append(digits.data(), end);
}

// Two decimals, "m" for the sign.
void AppendPercent(std::string& text, double percent) {
  std::array<char, 64> digits;
  const int size = std::snprintf(digits.data(), digits.size(), "%.2f", std::abs(percent));
  const std::string_view rounded(digits.data(), static_cast<std::size_t>(size));
  if (percent < 0 && rounded.find_first_not_of("0.") != std::string_view::npos) text += 'm';
  text += rounded;
}

// --- Events to records ---

constexpr unsigned kParseFlags = rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;

class Records {
 public:
  Records(Store& store, long minutesWest) : m_store(store), m_secondsWest(minutesWest * 60) {}

  void TakeSnapshot(const std::string& answer) {
    rapidjson::Document document;
    document.Parse<kParseFlags>(answer.data(), answer.size());
    const rapidjson::Value& quotes = document["quotes"]["quote"];
    if (!quotes.IsArray()) return TakeQuote(quotes);
    for (const rapidjson::Value& quote : quotes.GetArray()) TakeQuote(quote);
  }

  void Handle(const char* data, std::size_t size) {
    m_pool.Clear();
    Document document(&m_pool);
    document.Parse<kParseFlags>(data, size);
    if (document.HasParseError() || !document.IsObject()) return;
    if (document.HasMember("error")) throw std::runtime_error(document["error"].GetString());
    const auto type = document.FindMember("type");
    const auto name = document.FindMember("symbol");
    if (type == document.MemberEnd() || name == document.MemberEnd()) return;
    m_symbol.assign(name->value.GetString(), name->value.GetStringLength());
    std::transform(m_symbol.begin(), m_symbol.end(), m_symbol.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const std::string_view kind = type->value.GetString();
    if (kind == "quote") {
      SaveBook(m_symbol, Text(document, "bid"), Text(document, "bidsz"), Text(document, "ask"),
               Text(document, "asksz"));
    } else if (kind == "timesale") {
      Apply(Text(document, "last"), Text(document, "size"), Text(document, "date"));
    }
  }

 private:
  using Pool = rapidjson::MemoryPoolAllocator<>;
  using Document = rapidjson::GenericDocument<rapidjson::UTF8<>, Pool>;

  struct Record {
    std::string last, change, open, high, low, stamp;
    double highValue = 0;
    double lowValue = 0;
    double volume = 0;
    double previousClose = 0;
  };

  template <typename Object>
  static std::string_view Text(const Object& object, const char* key) {
    const auto member = object.FindMember(key);
    if (member == object.MemberEnd() || !member->value.IsString()) return {};
    return {member->value.GetString(), member->value.GetStringLength()};
  }

  void TakeQuote(const rapidjson::Value& quote) {
    m_symbol = Text(quote, "symbol");
    Record& record = m_records[m_symbol];
    // Before the first trade of a day the last price stands in for nulls.
    const auto price = [&](const char* key) {
      const std::string_view value = Text(quote, key);
      std::string text;
      AppendNumber(text, ToNumber(value.empty() ? Text(quote, "last") : value));
      return text;
    };
    record.last = price("last");
    AppendPercent(record.change, ToNumber(Text(quote, "change_percentage")));
    record.open = price("open");
    record.high = price("high");
    record.low = price("low");
    record.highValue = ToNumber(record.high);
    record.lowValue = ToNumber(record.low);
    record.volume = std::max(ToNumber(Text(quote, "volume")), 1.0);
    record.previousClose = ToNumber(Text(quote, "prevclose"));
    SetStamp(Text(quote, "trade_date"));
    record.stamp = m_stamp;
    SaveRecord(record);
    SaveBook(m_symbol, Text(quote, "bid"), Text(quote, "bidsize"), Text(quote, "ask"), Text(quote, "asksize"));
  }

  // A trade is taken when it is later than the record; one that is older than it does not even touch the bars.
  void Apply(std::string_view last, std::string_view size, std::string_view date) {
    SetStamp(date);
    Record& record = m_records[m_symbol];
    if (m_stamp < record.stamp) return;
    if (record.stamp.size() == m_stamp.size() && m_stamp[11] != record.stamp[11]) m_store.ForgetBars();
    if (m_stamp == record.stamp) return;
    const double price = ToNumber(last);
    record.volume += ToNumber(size);
    record.last.clear();
    AppendNumber(record.last, price);
    if (record.previousClose != 0) {
      record.change.clear();
      AppendPercent(record.change, (price / record.previousClose - 1) * 100);
    }
    if (record.highValue < price) {
      record.highValue = price;
      record.high = record.last;
    }
    if (record.lowValue > price) {
      record.lowValue = price;
      record.low = record.last;
    }
    record.stamp = m_stamp;
    SaveRecord(record);
  }

  void SaveRecord(const Record& record) {
    if (m_symbol.find('-') != std::string::npos) return;  // it would break the record
    m_value.assign(m_symbol);
    for (const std::string* field : {&record.last, &record.change, &record.open, &record.high, &record.low}) {
      m_value.append("-").append(*field);
    }
    m_value += '-';
    AppendNumber(m_value, record.volume);
    m_value.append("-1-1-").append(record.stamp);
    m_store.Save(m_symbol, m_value);
  }

  void SaveBook(std::string_view symbol, std::string_view bid, std::string_view bidSize, std::string_view ask,
                std::string_view askSize) {
    m_key.assign(symbol).append("-bid@ask");
    m_value.assign(bid).append("|").append(bidSize).append("@").append(ask).append("|").append(askSize);
    m_store.Save(m_key, m_value);
  }

  void SetStamp(std::string_view milliseconds) {
    const time_t local = static_cast<time_t>(ToNumber(milliseconds) / 1000) - m_secondsWest;
    tm parts{};
    gmtime_r(&local, &parts);
    std::array<char, 16> text;
    m_stamp.assign(text.data(), std::strftime(text.data(), text.size(), "%Y%m%d%H%M%S", &parts));
  }

  Store& m_store;
  const time_t m_secondsWest;
  std::unordered_map<std::string, Record> m_records;
  std::array<char, 16384> m_poolBuffer;
  Pool m_pool{m_poolBuffer.data(), m_poolBuffer.size()};
  std::string m_symbol, m_stamp, m_key, m_value;
};

// --- Session ---

void Run(const std::string& port, const char* caFile, const char* database, long minutesWest) {
  std::string list;
  std::string quoted;
  for (std::string line; std::getline(std::cin, line);) {
    list.append(list.empty() ? "" : ",").append(line);
    quoted.append(quoted.empty() ? "\"" : ",\"").append(line).append("\"");
  }
  Broker broker(port, caFile);
  Store store(database);
  Records records(store, minutesWest);

  websocket::stream<Tls> stream(broker.Context(), broker.TlsContext());
  broker.Open(stream.next_layer());
  stream.handshake(std::string(kHost) + ":" + port, "/v1/markets/events");
  records.TakeSnapshot(broker.Ask(http::verb::get, "markets/quotes?symbols=" + list + "&greeks=false"));

  const std::string answer = broker.Ask(http::verb::post, "markets/events/session");
  rapidjson::Document session;
  session.Parse(answer.data(), answer.size());
  stream.text(true);
  stream.write(asio::buffer(R"({"symbols": [)" + quoted + R"(], "sessionid": ")" +
                            session["stream"]["sessionid"].GetString() + R"(", "linebreak": true})"));
  beast::flat_buffer buffer;
  for (;;) {
    stream.read(buffer);
    records.Handle(static_cast<const char*>(buffer.data().data()), buffer.size());
    buffer.clear();
  }
}

}  // namespace
}  // namespace quenmark::bench

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: glued_client PORT CA_FILE DATABASE MINUTES_WEST <SYMBOLS\n";
    return 2;
  }
  try {
    quenmark::bench::Run(argv[1], argv[2], argv[3], std::strtol(argv[4], nullptr, 10));
  } catch (const std::exception& error) {
    std::cerr << "glued_client: " << error.what() << '\n';
    return 1;
  }
  return 0;
}
