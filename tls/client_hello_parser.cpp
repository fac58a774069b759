#include "tls/client_hello_parser.h"

namespace quenmark::tls {

namespace {

void ReadServerName(ClientHello& hello, ByteReader& reader) {
  constexpr std::uint8_t kHostName = 0;
  reader.Block(2, [&] {
    while (reader.Remaining() > 0) {
      const std::uint8_t type = reader.U8();
      const BytesView name = reader.TakeBlock(2);
      if (type == kHostName && hello.serverName.empty()) hello.serverName = AsText(name);
    }
  });
}

void ReadAlpn(ClientHello& hello, ByteReader& reader) {
  reader.Block(2, [&] {
    while (reader.Remaining() > 0) {
      const BytesView name = reader.TakeBlock(1);
      if (name.empty()) return reader.Fail();
      hello.alpn.push_back(AsText(name));
    }
  });
  if (hello.alpn.empty()) reader.Fail();
}

void ReadVersions(ClientHello& hello, ByteReader& reader) {
  reader.Block(1, [&] {
    while (reader.Remaining() > 0) hello.versions.push_back(reader.U16());
  });
}

void ReadKeyShares(ClientHello& hello, ByteReader& reader) {
  reader.Block(2, [&] {
    while (reader.Remaining() > 0) {
      const std::uint16_t group = reader.U16();
      const BytesView key = reader.TakeBlock(2);
      if (key.empty()) return reader.Fail();
      hello.keyShares.push_back({group, key});
    }
  });
}

void ReadExtension(ClientHello& hello, const Extension& extension) {
  const std::string name = ExtensionName(extension.type);
  ByteReader reader(extension.data);
  switch (extension.type) {
    case extension::kServerName:
      ReadServerName(hello, reader);
      break;
    case extension::kAlpn:
      ReadAlpn(hello, reader);
      break;
    case extension::kSupportedGroups:
      hello.groups = ReadU16List(reader, name);
      break;
    case extension::kSignatureAlgorithms:
      hello.schemes = ReadU16List(reader, name);
      break;
    case extension::kSupportedVersions:
      ReadVersions(hello, reader);
      break;
    case extension::kKeyShare:
      ReadKeyShares(hello, reader);
      break;
    case extension::kRenegotiationInfo: {
      const BytesView data = reader.TakeBlock(1);
      hello.renegotiationInfo.assign(data.begin(), data.end());
      break;
    }
    case extension::kExtendedMasterSecret:
      break;  // empty
    default:
      return;
  }
  RequireDone(reader, name);
}

}  // namespace

ClientHello ParseClientHello(const Message& message) {
  const std::string name = MessageName(message.type);
  ClientHello hello;
  ByteReader reader(message.body);
  hello.legacyVersion = reader.U16();
  hello.random = reader.Take(32);
  hello.sessionId = reader.TakeBlock(1);
  hello.suites = ReadU16List(reader, name);
  hello.compressionMethods = reader.TakeBlock(1);
  std::vector<Extension> extensions;
  if (reader.Remaining() > 0) extensions = ReadExtensions(reader);
  RequireDone(reader, name);
  if (hello.sessionId.size() > 32) InvalidSize(name);
  for (const Extension& extension : extensions) {
    hello.extensions.push_back(extension.type);
    ReadExtension(hello, extension);
  }
  return hello;
}

}  // namespace quenmark::tls
