#include "tests/tls/scenario.h"

#include "platform/byte_cursor.h"

#include <algorithm>
#include <utility>

namespace quenmark::test {

using platform::ByteReader;
using platform::ByteWriter;
using tls::Bytes;
using tls::BytesView;

bool NullCipher::Encrypt(BytesView, BytesView, BytesView in, std::uint8_t* out) {
  if (in.data() != out) std::copy(in.begin(), in.end(), out);
  std::fill_n(out + in.size(), m_tagSize, std::uint8_t{0});
  return true;
}

bool NullCipher::Decrypt(BytesView, BytesView, BytesView in, std::uint8_t* out) {
  if (in.size() < m_tagSize) return false;
  std::copy_n(in.begin(), in.size() - m_tagSize, out);
  return true;
}

std::unique_ptr<tls::BulkCipher> NullProtection::MakeCipher(tls::Bulk bulk, BytesView, tls::CipherUse) {
  const bool cbc = bulk == tls::Bulk::kAes128Cbc || bulk == tls::Bulk::kAes256Cbc;
  return std::make_unique<NullCipher>(cbc ? 0 : 16);
}

void Item::Replace(const std::function<void(Bytes&)>& change) {
  Bytes body(content.begin() + 4, content.end());
  change(body);
  const std::uint8_t message = content[0];
  content.clear();
  ByteWriter writer(content);
  writer.U8(message);
  writer.AppendBlock(3, body);
}

namespace {

std::size_t NonceSize(const tls::Context& context) {
  return context.cipherSuite != nullptr ? context.cipherSuite->explicitNonceSize : 0U;
}

// `changedCipher` tells whether the sender of TLS 1.2 is protected, and is kept from flight to flight.
std::vector<Item> Decode(BytesView wire, const tls::Context& context, bool& changedCipher) {
  std::vector<Item> items;
  ByteReader reader(wire);
  while (reader.Remaining() > 0) {
    Item item;
    item.type = reader.U8();
    reader.U16();
    BytesView content = reader.TakeBlock(2);
    if (item.type == 23) {
      item.protection = tls::kVersionTls13;
      item.type = content[content.size() - 17];
      content = content.first(content.size() - 17);
    } else if (changedCipher && context.protocolVersion == tls::kVersionTls12) {
      item.protection = tls::kVersionTls12;
      content = content.subspan(NonceSize(context), content.size() - 16 - NonceSize(context));
    }
    changedCipher = changedCipher || item.type == 20;
    ByteReader messages(content);
    do {
      const std::size_t start = messages.Position();
      if (item.type != 22) {
        messages.Take(content.size());
      } else {
        messages.U8();
        messages.TakeBlock(3);
      }
      const BytesView part = content.subspan(start, messages.Position() - start);
      item.content.assign(part.begin(), part.end());
      items.push_back(item);
    } while (messages.Remaining() > 0);
  }
  return items;
}

}  // namespace

Bytes Encode(const std::vector<Item>& items, bool explicitNonce) {
  Bytes wire;
  for (const Item& item : items) {
    Bytes content = item.content;
    std::uint8_t type = item.type;
    if (item.protection == tls::kVersionTls13) {
      content.push_back(type);
      content.insert(content.end(), 16, 0);
      type = 23;
    } else if (item.protection == tls::kVersionTls12) {
      content.insert(content.end(), 16, 0);
      if (explicitNonce) content.insert(content.begin(), 8, 0);
    }
    ByteWriter writer(wire);
    writer.U8(type);
    writer.U16(0x0303);
    writer.AppendBlock(2, content);
  }
  return wire;
}

Scenario::Scenario() {
  client.services = &services;
  server.services = &services;
}

void Scenario::Run(Under under, std::uint32_t features, const Change& change) {
  tls::Context& tested = under == Under::kClient ? client : server;
  const Identity& identity = IdentityOf(key);
  Bytes toServer;
  Bytes toClient;
  failed = !tls::TlsInitClient(client, "localhost", features, nullptr, "") ||
           !tls::TlsInitServer(server, "", {identity.certificate}, identity.privateKey, "h2", features) ||
           !tls::TlsHandshake(client, {}, toServer);
  bool changedToTested = false;
  bool changedByTested = false;
  const auto pass = [&](tls::Context& to, Bytes& wire, Bytes& reply) {
    if (wire.empty() || tls::TlsIsClosed(to)) return wire.clear();
    if (&to == &tested) {
      std::vector<Item> items = Decode(wire, to, changedToTested);
      change(items);
      wire = Encode(items, NonceSize(to) > 0);
    }
    Bytes plaintext;
    const bool done =
        tls::TlsIsReady(to) ? tls::TlsReceive(to, wire, plaintext, reply) : tls::TlsHandshake(to, wire, reply);
    wire.clear();
    if (&to != &tested) return;
    failed = failed || !done;
    if (!reply.empty()) sent = Decode(reply, to, changedByTested);
  };
  for (int round = 0; round < 6; ++round) {
    pass(server, toServer, toClient);
    pass(client, toClient, toServer);
  }
}

namespace {

using Extensions = std::vector<std::pair<std::uint16_t, Bytes>>;

void Rewrite(Bytes& body, std::uint8_t hello, const std::function<void(Extensions&)>& change) {
  ByteReader reader(body);
  reader.Take(34);
  reader.TakeBlock(1);
  if (hello == 2) {
    reader.Take(3);
  } else {
    reader.TakeBlock(2);
    reader.TakeBlock(1);
  }
  const std::size_t at = reader.Position();
  Extensions list;
  reader.Block(2, [&] {
    while (reader.Remaining() > 0) {
      const std::uint16_t type = reader.U16();
      const BytesView data = reader.TakeBlock(2);
      list.emplace_back(type, Bytes(data.begin(), data.end()));
    }
  });
  change(list);
  body.resize(at);
  ByteWriter writer(body);
  writer.Block(2, [&] {
    for (const auto& [type, data] : list) {
      writer.U16(type);
      writer.AppendBlock(2, data);
    }
  });
}

}  // namespace

void AddExtension(Bytes& body, std::uint8_t hello, std::uint16_t type, const Bytes& data) {
  Rewrite(body, hello, [&](Extensions& list) { list.emplace_back(type, data); });
}

void RemoveExtension(Bytes& body, std::uint8_t hello, std::uint16_t type) {
  Rewrite(body, hello, [&](Extensions& list) { std::erase_if(list, [&](const auto& e) { return e.first == type; }); });
}

void ReplaceExtension(Bytes& body, std::uint8_t hello, std::uint16_t type, const Bytes& data) {
  RemoveExtension(body, hello, type);
  AddExtension(body, hello, type, data);
}

}  // namespace quenmark::test
