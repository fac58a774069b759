// The engine's client against the traces of RFC 8448: the trace's hellos and keys are put in place of its own,
// everything after them must come out to the byte.
#include "tests/tls/test_keys.h"
#include "tls/engine.h"
#include "tls/key_schedule.h"
#include "tls/records.h"

#include <gtest/gtest.h>

#include <string>

namespace quenmark::tls {
namespace {

using test::FromHex;
using test::ToHex;

// ---- section 3, simple 1-RTT ----

const char* const kClientPrivate = "49af42ba7f7994852d713ef2784bcbcaa7911de26adc5642cb634540e7ea5005";
const char* const kClientHello =
    "010000c00303cb34ecb1e78163ba1c38c6dacb196a6dffa21a8d9912ec18a2ef6283024dece7000006130113031302010000910000000b000"
    "9000006736572766572ff01000100000a00140012001d0017001800190100010101020103010400230000003300260024001d002099381de5"
    "60e4bd43d23d8e435a7dbafeb3c06e51c13cae4d5413691e529aaf2c002b0003020304000d0020001e0403050306030203080408050806040"
    "10501060102010402050206020202002d00020101001c00024001";
const char* const kServerHello =
    "020000560303a6af06a4121860dc5e6e60249cd34c95930c8ac5cb1434dac155772ed3e2692800130100002e00330024001d0020c98288761"
    "12095fe66762bdbf7c672e156d6cc253b833df1dd69b1b04e751f0f002b00020304";
const char* const kEncryptedExtensions =
    "080000240022000a00140012001d00170018001901000101010201030104001c0002400100000000";
const char* const kCertificate =
    "0b0001b9000001b50001b0308201ac30820115a003020102020102300d06092a864886f70d01010b0500300e310c300a06035504031303727"
    "361301e170d3136303733303031323335395a170d3236303733303031323335395a300e310c300a0603550403130372736130819f300d0609"
    "2a864886f70d010101050003818d0030818902818100b4bb498f8279303d980836399b36c6988c0c68de55e1bdb826d3901a2461eafd2de49"
    "a91d015abbc9a95137ace6c1af19eaa6af98c7ced43120998e187a80ee0ccb0524b1b018c3e0b63264d449a6d38e22a5fda43084674803053"
    "0ef0461c8ca9d9efbfae8ea6d1d03e2bd193eff0ab9a8002c47428a6d35a8d88d79f7f1e3f0203010001a31a301830090603551d130402300"
    "0300b0603551d0f0404030205a0300d06092a864886f70d01010b05000381810085aad2a0e5b9276b908c65f73a7267170618a54c5f8a7b33"
    "7d2df7a594365417f2eae8f8a58c8f8172f9319cf36b7fd6c55b80f21a03015156726096fd335e5e67f2dbf102702e608ccae6bec1fc63a42"
    "a99be5c3eb7107c3c54e9b9eb2bd5203b1c3b84e0a8b2f759409ba3eac9d91d402dcc0cc8f8961229ac9187b42b4de10000";
const char* const kCertificateVerify =
    "0f000084080400805a747c5d88fa9bd2e55ab085a61015b7211f824cd484145ab3ff52f1fda8477b0b7abc90db78e2d33a5c141a078653fa6"
    "bef780c5ea248eeaaa785c4f394cab6d30bbe8d4859ee511f602957b15411ac027671459e46445c9ea58c181e818e95b8c3fb0bf3278409d3"
    "be152a3da5043e063dda65cdf5aea20d53dfacd42f74f3";
const char* const kServerFinished = "140000209b9b141d906337fbd2cbdce71df4deda4ab42c309572cb7fffee5454b78f0718";
const char* const kClientFinishedRecord =
    "170303003575ec4dc238cce60b298044a71e219c56cc77b0517fe9b93c7a4bfc44d87f38f80338ac98fc46deb384bd1caeacab6867d726c40"
    "546";
const char* const kTicketRecord =
    "17030300de3a6b8f90414a97d6959c3487680de5134a2b240e6cffac116e95d41d6af8f6b580dcf3d11d63c758db289a015940252f55713e0"
    "61dc13e078891a38efbcf5753ad8ef170ad3c7353d16d9da773b9ca7f2b9fa1b6c0d4a3d03f75e09c30ba1e62972ac46f75f7b981be63439b"
    "2999ce13064615139891d5e4c5b406f16e3fc181a77ca475840025db2f0a77f81b5ab05b94c01346755f69232c86519d86cbeeac87aac347d"
    "143f9605d64f650db4d023e70e952ca49fe5137121c74bc2697687e248746d6df353005f3bce18696129c8153556b3b6c6779b37bf1598568"
    "4f";
const char* const kClientDataRecord =
    "1703030043a23f7054b62c94d0affafe8228ba55cbefacea42f914aa66bcab3f2b9819a8a5b46b395bd54a9a20441e2b62974e1f5a6292a29"
    "77014bd1e3deae63aeebb21694915e4";
const char* const kServerDataRecord =
    "17030300432e937e11ef4ac740e538ad36005fc4a46932fc3225d05f82aa1b36e30efaf97d90e6dffc602dcb501a59a8fcc49c4bf2e5f0a21"
    "c0047c2abf332540dd032e167c2955d";
const char* const kClientAlertRecord = "1703030013c9872760655666b74d7ff1153efd6db6d0b0e3";
const char* const kServerAlertRecord = "1703030013b58fd67166ebf599d24720cfbe7efa7a8864a9";

// ---- section 5, HelloRetryRequest ----

const char* const kRetryPrivate = "ab5473467e19346ceb0a0414e41da21d4d2445bc3025afe97c4e8dc8d513da39";
const char* const kFirstHello =
    "010000b00303b0b1c5a5aa37c5919f2ed1d5c6fff7fcb7849716945a2b8cee9258a346677b6f000006130113031302010000810000000b000"
    "9000006736572766572ff01000100000a00080006001d00170018003300260024001d0020e8e8e3f3b93a25ed97a14a7dcacb8a272c6288e5"
    "85c6484d05262fcad062ad1f002b0003020304000d0020001e040305030603020308040805080604010501060102010402050206020202002"
    "d00020101001c00024001";
const char* const kCookieText =
    "71dcd04bb88bc3189119398a00000000eefafc76c146b823b096f8aacad365dd0030953f4edf625636e5f21bb2e23fcc654b1b5b40318d10d"
    "137abcbb87574e36e8a1f025f7dfa5d6e50781b5eda4aa15b0c8be778257d16aa3030e9e7841dd9e4c0342267e8ca0caf571fb2b7cff0f934"
    "b0";
const char* const kRetryHello[] = {
    "020000ac0303cf21ad74e59a6111be1d8c021e65b891c2a211167abb8c5e079e09e2c8a8339c001301000084003300020017002c00740072",
    kCookieText, "002b00020304"};
const char* const kSecondHello[] = {
    "010001fc0303b0b1c5a5aa37c5919f2ed1d5c6fff7fcb7849716945a2b8cee9258a346677b6f000006130113031302010001cd0000000b000"
    "9000006736572766572ff01000100000a00080006001d001700180033004700450017004104a6da7392ec591e17abfd535964b99894d13bef"
    "b221b3def2ebe3830eac8f0151812677c4d6d2237e85cf01d6910cfb83954e76ba7352830534159897e8065780002b0003020304000d00200"
    "01e040305030603020308040805080604010501060102010402050206020202002c00740072",
    kCookieText, "002d00020101001c00024001001500af"};
const char* const kRetryServerHello =
    "020000770303bb341d847fd789c47c387172dc0c9bf147fccacb5043d86ca4c598d3ff571b9800130100004f003300450017004104583e054"
    "b7a66672ae020ad9d2686fcc85b5ad41a134a0f03ee72b893052bd85b4c8de6776f5b04ac07d83540eab3e3d9c547bc6528c4317d29468609"
    "3a6cad7d002b00020304";
const char* const kRetryEncryptedExtensions = "080000180016000a0008000600170018001d001c0002400100000000";
const char* const kRetryCertificateVerify =
    "0f0000840804008033ab13d4462707231b5dcae6c8190b63d1dabc74f28c395370da0b07e5b83066d0246a31acd95df475bfd799a4a70d33a"
    "d93d3a317a9b2c0d237a5685b219e774112e391a247607d1aeff1bbd0a39f382ee1a5fe88ae99ec59228e6497e45d48ce275a6d5ef40d169f"
    "b6f9d33b052ed3dcdd6b5a48baafffbcb290128415bd38";
const char* const kRetryServerFinished = "140000208863e6bfb0420a927fa27f34336a70ae426e968e3eb884945b96856dba3976d1";
const char* const kRetryClientFinishedRecord =
    "1703030035d74f1923c662fd34137c6f502f3dd2b93d951d1b3bc97e42afe23c31abea92fe91b474999e85e3b791ce252fe8c3e9f939a4120"
    "cb2";

Bytes Join(std::initializer_list<const char*> parts) {
  std::string text;
  for (const char* part : parts) text += part;
  return FromHex(text);
}

Bytes PlainRecord(const Bytes& body) {
  Bytes record = {22, 3, 3, static_cast<std::uint8_t>(body.size() >> 8), static_cast<std::uint8_t>(body.size())};
  record.insert(record.end(), body.begin(), body.end());
  return record;
}

const std::vector<std::uint16_t> kOfferedExtensions = {0, 65281, 10, 35, 51, 43, 13, 45, 28};

// A client that has sent the trace's ClientHello.
void PutClientHello(Context& context, const char* hello, const char* privateKey) {
  ASSERT_TRUE(TlsInitClient(context, "server", kFeatureTls13, nullptr, ""));
  Bytes out;
  ASSERT_TRUE(TlsHandshake(context, {}, out));
  Handshake& handshake = *context.handshake;
  handshake.transcript.Clear();
  handshake.transcript.Append(FromHex(hello));
  handshake.keyPair = KeyPair::FromPrivate(*handshake.group, FromHex(privateKey));
  handshake.offeredExtensions = kOfferedExtensions;
}

// The messages as the server's one protected record.
Bytes ServerFlight(const Context& context, const Bytes& messages) {
  const TrafficKeys keys = DeriveTrafficKeys(*context.cipherSuite, context.remote.trafficSecret.View());
  Protection server;
  server.suite = context.cipherSuite;
  server.version = kVersionTls13;
  std::copy(keys.iv.View().begin(), keys.iv.View().end(), server.iv.begin());
  server.cipher = MakeBulkCipher(server.suite->bulk, keys.key.View(), CipherUse::kEncrypt);
  Bytes flight;
  Seal(server, content_type::kHandshake, messages, flight);
  return flight;
}

TEST(Rfc8448, SimpleHandshake) {
  Context context;
  PutClientHello(context, kClientHello, kClientPrivate);
  ASSERT_FALSE(HasFatalFailure());
  Bytes out;
  ASSERT_TRUE(TlsHandshake(context, PlainRecord(FromHex(kServerHello)), out));
  EXPECT_EQ(ToHex(context.handshake->handshakeSecret.View()),
            "1dc826e93606aa6fdc0aadc12f741b01046aa6b99f691ed221a9f0ca043fbeac");
  EXPECT_EQ(ToHex(context.remote.trafficSecret.View()),
            "b67b7d690cc16c4e75e54213cb2d37b4e9c912bcded9105d42befd59d391ad38");
  EXPECT_EQ(ToHex(context.local.trafficSecret.View()),
            "b3eddb126e067f35a780b3abf45e2d8f3b1a950738f52e9600746a0e27a55a21");
  const TrafficKeys keys = DeriveTrafficKeys(*context.cipherSuite, context.remote.trafficSecret.View());
  EXPECT_EQ(ToHex(keys.key.View()), "3fce516009c21727d0f2e4e86ee403bc");
  EXPECT_EQ(ToHex(keys.iv.View()), "5d313eb2671276ee13000b30");

  const Bytes flight =
      ServerFlight(context, Join({kEncryptedExtensions, kCertificate, kCertificateVerify, kServerFinished}));
  EXPECT_EQ(ToHex(BytesView(flight).first(21)), "17030302a2d1ff334a56f5bff6594a07cc87b58023");
  EXPECT_EQ(ToHex(BytesView(flight).last(16)), "bf0253fe5175be898e750edc53370d2b");

  ASSERT_TRUE(out.empty());
  ASSERT_TRUE(TlsHandshake(context, flight, out)) << context.lastError.description;
  EXPECT_EQ(ToHex(out), std::string("140303000101") + kClientFinishedRecord);
  EXPECT_EQ(context.state, State::kPostHandshake);
  EXPECT_EQ(ToHex(context.local.trafficSecret.View()),
            "9e40646ce79a7f9dc05af8889bce6552875afa0b06df0087f792ebb7c17504a5");
  EXPECT_EQ(ToHex(context.remote.trafficSecret.View()),
            "a11af9f05531f856ad47116b45a950328204b4f44bfb6b3a4b4f1f3fcb631643");

  Bytes content(50);
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<std::uint8_t>(i);
  out.clear();
  Bytes plaintext;
  ASSERT_TRUE(TlsReceive(context, FromHex(kTicketRecord), plaintext, out)) << context.lastError.description;
  EXPECT_EQ(context.sessionTickets.size(), 1U);
  ASSERT_TRUE(TlsSend(context, content, out));
  EXPECT_EQ(ToHex(out), kClientDataRecord);
  ASSERT_TRUE(TlsReceive(context, FromHex(kServerDataRecord), plaintext, out));
  EXPECT_EQ(plaintext, content);
  out.clear();
  ASSERT_TRUE(TlsShutdown(context, out));
  EXPECT_EQ(ToHex(out), kClientAlertRecord);
  ASSERT_TRUE(TlsReceive(context, FromHex(kServerAlertRecord), plaintext, out));
  EXPECT_EQ(context.state, State::kClosed);
}

TEST(Rfc8448, HelloRetryRequest) {
  Context context;
  PutClientHello(context, kFirstHello, kClientPrivate);
  ASSERT_FALSE(HasFatalFailure());
  const Bytes retry = Join({kRetryHello[0], kRetryHello[1], kRetryHello[2]});
  Bytes secondHello = Join({kSecondHello[0], kSecondHello[1], kSecondHello[2]});
  secondHello.resize(secondHello.size() + 0xAF);  // the padding extension's zeros
  Bytes out;
  ASSERT_TRUE(TlsHandshake(context, PlainRecord(retry), out)) << context.lastError.description;
  Handshake& handshake = *context.handshake;
  EXPECT_EQ(handshake.requestedGroup, 23);
  EXPECT_EQ(ToHex(handshake.cookie), kCookieText);
  EXPECT_EQ(context.state, State::kExpectServerHello);
  // The engine's own second hello: the one group asked for, and the cookie.
  EXPECT_NE(ToHex(out).find("000a000400020017"), std::string::npos);
  EXPECT_NE(ToHex(out).find(std::string("002c00740072") + kCookieText), std::string::npos);
  // The trace's second hello in place of the engine's own.
  Transcript transcript;
  transcript.Append(FromHex(kFirstHello));
  transcript.SetDigest(Digest::kSha256, false);
  transcript.ReplaceByMessageHash();
  transcript.Append(retry);
  transcript.Append(secondHello);
  handshake.transcript = transcript;
  handshake.offeredExtensions = kOfferedExtensions;
  handshake.keyPair = KeyPair::FromPrivate(GroupOf(23), FromHex(kRetryPrivate));
  EXPECT_EQ(ToHex(handshake.keyPair.Public()), ToHex(BytesView(secondHello).subspan(93, 65)));

  ASSERT_TRUE(TlsHandshake(context, PlainRecord(FromHex(kRetryServerHello)), out)) << context.lastError.description;
  EXPECT_EQ(ToHex(context.local.trafficSecret.View()),
            "158aa7ab8855073582b41d674b4055cabcc534728f659314861b4e08e2011566");
  EXPECT_EQ(ToHex(context.remote.trafficSecret.View()),
            "3403e781e2af7b6508da28574f6e95a1abf162de83a97927c37672a4a0cef8a1");
  const Bytes flight = ServerFlight(
      context, Join({kRetryEncryptedExtensions, kCertificate, kRetryCertificateVerify, kRetryServerFinished}));
  out.clear();
  ASSERT_TRUE(TlsHandshake(context, flight, out)) << context.lastError.description;
  EXPECT_EQ(ToHex(out), std::string("140303000101") + kRetryClientFinishedRecord);
}

}  // namespace
}  // namespace quenmark::tls
