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

std::vector<Item> Decode(BytesView wire, int& protection, bool explicitNonce) {
  std::vector<Item> items;
  ByteReader reader(wire);
  while (reader.Remaining() > 0) {
    Item item;
    item.type = reader.U8();
    reader.U16();
    BytesView content = reader.TakeBlock(2);
    if (item.type == 23) {
      protection = tls::kVersionTls13;
      content = content.first(content.size() - 16);
      item.type = content.back();
      content = content.first(content.size() - 1);
      item.protection = tls::kVersionTls13;
    } else if (protection == tls::kVersionTls12) {
      content = content.subspan(explicitNonce ? 8 : 0, content.size() - 16 - (explicitNonce ? 8 : 0));
      item.protection = tls::kVersionTls12;
    }
    ByteReader messages(content);
    if (item.type != 22) {
      item.content.assign(content.begin(), content.end());
      items.push_back(item);
      if (item.type == 20 && protection == 0) protection = -1;
      continue;
    }
    while (messages.Remaining() > 0) {
      const std::size_t start = messages.Position();
      messages.U8();
      messages.TakeBlock(3);
      item.content.assign(content.begin() + static_cast<std::ptrdiff_t>(start),
                          content.begin() + static_cast<std::ptrdiff_t>(messages.Position()));
      items.push_back(item);
    }
  }
  return items;
}

Bytes RawRecord(std::uint8_t type, const Bytes& content) {
  Bytes record;
  ByteWriter writer(record);
  writer.U8(type);
  writer.U16(0x0303);
  writer.AppendBlock(2, content);
  return record;
}

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
    const Bytes record = RawRecord(type, content);
    wire.insert(wire.end(), record.begin(), record.end());
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
  const bool started =
      tls::TlsInitClient(client, "localhost", features, client.clientCertificateOwner, clientAlpn) &&
      tls::TlsInitServer(
          server, "",
          server.localCertificates.empty() ? std::vector<Bytes>{identity.certificate} : server.localCertificates,
          server.localPrivateKey.empty() ? BytesView(identity.privateKey) : BytesView(server.localPrivateKey),
          serverAlpn, features);
  Bytes toServer;
  Bytes toClient;
  failed = !started || !tls::TlsHandshake(client, {}, toServer);
  int protection[2] = {0, 0};
  const auto pass = [&](tls::Context& to, Bytes& wire, Bytes& reply) {
    if (wire.empty()) return;
    if (tls::TlsIsClosed(to)) return wire.clear();
    const bool nonce = tested.cipherSuite != nullptr && tested.cipherSuite->explicitNonceSize == 8;
    if (&to == &tested) {
      int& state = protection[&to == &client ? 0 : 1];
      // After its ChangeCipherSpec a TLS 1.2 sender is protected.
      std::vector<Item> items;
      ByteReader records(wire);
      while (records.Remaining() > 0) {
        const std::size_t at = records.Position();
        records.U8();
        records.U16();
        records.TakeBlock(2);
        const BytesView one = BytesView(wire).subspan(at, records.Position() - at);
        const bool tls12 = tested.protocolVersion == tls::kVersionTls12;
        if (state == -1 && tls12) state = tls::kVersionTls12;
        for (Item& item : Decode(one, state, nonce)) items.push_back(item);
      }
      change(items);
      wire = Encode(items, nonce);
    }
    Bytes plaintext;
    const bool done =
        tls::TlsIsReady(to) ? tls::TlsReceive(to, wire, plaintext, reply) : tls::TlsHandshake(to, wire, reply);
    wire.clear();
    if (&to != &tested) return;
    failed = failed || !done;
    if (!reply.empty()) lastOutput = reply;
  };
  for (int round = 0; round < 6; ++round) {
    pass(server, toServer, toClient);
    pass(client, toClient, toServer);
  }
}

std::vector<Item> Scenario::Sent() const {
  int protection = 0;
  return Decode(lastOutput, protection, true);
}

namespace {

// Byte offset of the extension block's length field.
std::size_t ExtensionsAt(const Bytes& body, bool serverHello) {
  ByteReader reader(body);
  reader.Take(34);
  reader.TakeBlock(1);
  if (serverHello) {
    reader.Take(3);
  } else {
    reader.TakeBlock(2);
    reader.TakeBlock(1);
  }
  return reader.Position();
}

void Rewrite(Bytes& body, bool serverHello,
             const std::function<void(std::vector<std::pair<std::uint16_t, Bytes>>&)>& change) {
  const std::size_t at = ExtensionsAt(body, serverHello);
  std::vector<std::pair<std::uint16_t, Bytes>> list;
  ByteReader reader(BytesView(body).subspan(at));
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

void ChangeExtension(Bytes& body, bool serverHello, std::uint16_t type, const std::function<void(Bytes&)>& change) {
  Rewrite(body, serverHello, [&](auto& list) {
    for (auto& [code, data] : list) {
      if (code == type) change(data);
    }
  });
}

void AddExtension(Bytes& body, bool serverHello, std::uint16_t type, const Bytes& data) {
  Rewrite(body, serverHello, [&](auto& list) { list.emplace_back(type, data); });
}

void RemoveExtension(Bytes& body, bool serverHello, std::uint16_t type) {
  Rewrite(body, serverHello, [&](auto& list) { std::erase_if(list, [&](const auto& e) { return e.first == type; }); });
}

}  // namespace quenmark::test
