// The engine's client against the traces of RFC 8448: the trace's hellos and keys are put in place of its own,
// everything after them must come out to the byte.
#include "tests/tls/test_keys.h"
#include "tls/engine.h"
#include "tls/handshake.h"
#include "tls/key_schedule.h"
#include "tls/records.h"

#include <gtest/gtest.h>

#include <numeric>
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

// ---- section 6, client authentication ----

const char* const kAuthPrivate = "c040b2bb8f3addd20fd4058c547003a3c6f9c1cd915d5e535c87d8d191aaf071";
const char* const kAuthHello =
    "010000bc03036a472236328b83af40386d3a3e1f1ce624fa4ed89ab865a4ff0f4144ce3ae2330000061301130313020100008d0000000b"
    "0009000006736572766572ff01000100000a00140012001d00170018001901000101010201030104003300260024001d0020089cc2671f"
    "738d9a671e5b2e464981d05b76e361aa22aea91f1d49ca10a7a362002b0003020304000d0020001e040305030603020308040805080604"
    "010501060102010402050206020202002d00020101001c00024001";
const char* const kAuthServerHello =
    "0200005603033b50fdf1c3d572e40e68953e7fff4e2758459c59afa0582c0ea032874255fe6e00130100002e00330024001d00206c2e50"
    "e865919a6b5a12dfaf918f92b442567b0f89bc54478c6921366658f062002b00020304";
const char* const kAuthRequest =
    "0d000027000024000d0020001e040305030603020308040805080604010501060102010402050206020202";
const char* const kAuthServerCertificate =
    "0b00013b000001370001323082012e3081d5a003020102020107300a06082a8648ce3d04030230133111300f0603550403130865636473"
    "61323536301e170d3136303733303031323430305a170d3236303733303031323430305a30133111300f06035504031308656364736132"
    "35363059301306072a8648ce3d020106082a8648ce3d0301070342000408d530161575f4cfe7f154ee3448180086001e88431a79ee62ee"
    "6e2f83ef38ba61e9fb37f34e007a7df4d2f5b56d1f04ece45d621f468406f5c3a15158948dd0a31a301830090603551d1304023000300b"
    "0603551d0f040403020780300a06082a8648ce3d0403020348003045022100df30fd4507f5edd22c1a6ff86db479ca693feeca3b71b3f9"
    "ef556b2937c0594d022062e2a47250d320fea83c7e2dcb5b76a50e0200c09adbd13fee946e513e011d110000";
const char* const kAuthServerVerify =
    "0f00004b040300473045022100d7a4d34bd54f55fee1a89625678c3dd5e5f60dac73ec940c5c7b9304a02084a90220289f595ed488b9ac"
    "689a3d192b1a8bb38f34af7874c059c9806a1f38269353e8";
const char* const kAuthServerFinished = "1400002093b70cdf4781985b96345caac701b4e750d3042df1a689d8faca812251113c11";
const char* const kAuthCertificate =
    "0b0001bf000001bb0001b6308201b23082011ba003020102020101300d06092a864886f70d01010b05003011310f300d06035504031306"
    "636c69656e74301e170d3136303733303031323335395a170d3236303733303031323335395a3011310f300d06035504031306636c6965"
    "6e7430819f300d06092a864886f70d010101050003818d0030818902818100c38175e004a68d093f823b9c379d201fbc0bb7a1c791905e"
    "3fbf76847e44e751ebbcd360bd945c81e5222bcc8846d3a8a0f93e9bf5bebabd92edf1de1ff19021703e7ab6c0901513f97e39b111f09c"
    "9348971c7b211984a754cd45fe095af0ea4236829bccf7a7fe9b2888e78ab477690a5b9e1ccbe91c6a4a0f97a7e02842010203010001a3"
    "1a301830090603551d1304023000300b0603551d0f040403020780300d06092a864886f70d01010b0500038181001a7a5a018532b022af"
    "0767d486160cff2d167a1915d23835b54594916dc680be5d2e626076c5d52722ebcc775d7d99f980be2fc94d34acf6cc00ba90cbcfb060"
    "8aa1e7e3971ef0c07a41d47ad8345d1f81fe418a1cf41054429fd217bd777dc1cf08f05df90799c659361e0f1a8ee4ac0f7897420bdbc8"
    "23da80a2f2ba23081c0000";
const char* const kAuthVerify =
    "0f00008408040080186b2223b503a759c35dba0e9721b4b579138d5f0f5e6ec7feaaf27f3ad7f386c2c7bd7cb2be52fbf5ed8393f406ee"
    "79369692ec7ac695651d858219e672a8eb7b2a677b640b46ab630edc5f3f2f8272b9c0d906f81f84ddc5b8c7bcf955c78a3cf99e5016f7"
    "3e04eb7dfcb28833f13e8f75ec2ff3581e2f098ad4157fd6d6ad";
const char* const kAuthFinished = "140000209afe2ba2f63a09d229d8a429e5b37ffd9fcc73bdb5911b82425972aa2892440f";
const char* const kAuthClientAlert = "1703030013e4ad7d44c29245339d355962c779b89ef44c58";
const char* const kAuthServerAlert = "17030300131decc5d6e64bba8a6f21b4fd077497da2a90cb";

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

Protection ProtectionOf(const Context& context, BytesView trafficSecret, CipherUse use) {
  const TrafficKeys keys = DeriveTrafficKeys(*context.cipherSuite, trafficSecret);
  Protection protection;
  protection.suite = context.cipherSuite;
  protection.version = kVersionTls13;
  std::copy(keys.iv.View().begin(), keys.iv.View().end(), protection.iv.begin());
  protection.cipher = MakeBulkCipher(protection.suite->bulk, keys.key.View(), use);
  return protection;
}

// The messages as one protected record.
Bytes Flight(const Context& context, BytesView trafficSecret, const Bytes& messages) {
  Protection protection = ProtectionOf(context, trafficSecret, CipherUse::kEncrypt);
  Bytes flight;
  Seal(protection, content_type::kHandshake, messages, flight);
  return flight;
}
Bytes ServerFlight(const Context& context, const Bytes& messages) {
  return Flight(context, context.remote.trafficSecret.View(), messages);
}

TEST(Rfc8448, SimpleHandshake) {
  Context context;
  PutClientHello(context, kClientHello, kClientPrivate);
  ASSERT_FALSE(HasFatalFailure());
  Bytes out;
  ASSERT_TRUE(TlsHandshake(context, PlainRecord(FromHex(kServerHello)), out));
  EXPECT_EQ(ToHex(context.remote.trafficSecret.View()),
            "b67b7d690cc16c4e75e54213cb2d37b4e9c912bcded9105d42befd59d391ad38");
  EXPECT_EQ(ToHex(context.local.trafficSecret.View()),
            "b3eddb126e067f35a780b3abf45e2d8f3b1a950738f52e9600746a0e27a55a21");
  const Bytes flight =
      ServerFlight(context, Join({kEncryptedExtensions, kCertificate, kCertificateVerify, kServerFinished}));
  EXPECT_EQ(ToHex(BytesView(flight).first(21)), "17030302a2d1ff334a56f5bff6594a07cc87b58023");
  EXPECT_EQ(ToHex(BytesView(flight).last(16)), "bf0253fe5175be898e750edc53370d2b");

  ASSERT_TRUE(out.empty());
  ASSERT_TRUE(TlsHandshake(context, flight, out)) << context.lastError.description;
  EXPECT_EQ(ToHex(out), std::string("140303000101") + kClientFinishedRecord);
  EXPECT_EQ(context.state, State::kPostHandshake);
  Bytes content(50);
  std::iota(content.begin(), content.end(), std::uint8_t{0});
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
  const Bytes flight = ServerFlight(
      context, Join({kRetryEncryptedExtensions, kCertificate, kRetryCertificateVerify, kRetryServerFinished}));
  out.clear();
  ASSERT_TRUE(TlsHandshake(context, flight, out)) << context.lastError.description;
  EXPECT_EQ(ToHex(out), std::string("140303000101") + kRetryClientFinishedRecord);
}

// The trace's client key is not published and its signature is salted: a signature of another key stands in the
// engine's flight, the trace's own is verified, and everything around it must be the trace's.
TEST(Rfc8448, ClientAuthentication) {
  Context context;
  PutClientHello(context, kAuthHello, kAuthPrivate);
  ASSERT_FALSE(HasFatalFailure());
  const Bytes certificate = FromHex(kAuthCertificate);
  context.localCertificates = {{certificate.begin() + 11, certificate.end() - 2}};
  const Bytes& key = test::IdentityOf(test::KeyKind::kRsa2048).privateKey;
  context.localPrivateKey.assign(key.begin(), key.end());
  Bytes out;
  ASSERT_TRUE(TlsHandshake(context, PlainRecord(FromHex(kAuthServerHello)), out)) << context.lastError.description;
  const Bytes clientSecret(context.local.trafficSecret.View().begin(), context.local.trafficSecret.View().end());
  const Bytes messages =
      Join({kEncryptedExtensions, kAuthRequest, kAuthServerCertificate, kAuthServerVerify, kAuthServerFinished});
  const Bytes flight = ServerFlight(context, messages);
  EXPECT_EQ(ToHex(BytesView(flight).first(21)), "17030302166d0a7ac079b32a94aa68c4e2893e8bd0");
  EXPECT_EQ(ToHex(BytesView(flight).last(16)), "49713a7bb135fdda6661a05a93f8c16f");
  ASSERT_TRUE(TlsHandshake(context, flight, out)) << context.lastError.description;
  // What the engine sent: the trace's Certificate, then a signature by the trace's scheme; Finished in a further
  // record.
  Protection opening = ProtectionOf(context, clientSecret, CipherUse::kDecrypt);
  Bytes sent;
  Open(opening, *context.services, BytesView(out).first(5u + (out[3] << 8 | out[4])), sent);
  ASSERT_GT(sent.size(), certificate.size() + 6);
  EXPECT_EQ(ToHex(BytesView(sent).first(certificate.size())), kAuthCertificate);
  EXPECT_EQ(ToHex(BytesView(sent).subspan(certificate.size() + 4, 2)), "0804");

  // The trace's own flight.
  Hash transcript(Digest::kSha256);
  for (const Bytes& part : {FromHex(kAuthHello), FromHex(kAuthServerHello), messages, certificate}) {
    transcript.Update(part);
  }
  const Bytes verify = FromHex(kAuthVerify);
  const auto clientKey = PublicKey::FromCertificate(context.localCertificates.front());
  ASSERT_TRUE(clientKey);
  EXPECT_TRUE(clientKey->Verify(Padding::kPss, Digest::kSha256, SignedContent13(false, transcript.Current().View()),
                                BytesView(verify).subspan(8)));
  transcript.Update(verify);
  EXPECT_EQ(ToHex(FinishedVerifyData(Digest::kSha256, clientSecret, transcript.Current().View()).View()),
            std::string(kAuthFinished).substr(8));
  const Bytes whole = Flight(context, clientSecret, Join({kAuthCertificate, kAuthVerify, kAuthFinished}));
  EXPECT_EQ(ToHex(BytesView(whole).first(21)), "1703030280b46a63934e673841abaf267403bc677f");
  EXPECT_EQ(ToHex(BytesView(whole).last(16)), "7ab64313c15cf3fe03c4f33842564976");

  out.clear();
  Bytes plaintext;
  ASSERT_TRUE(TlsShutdown(context, out));
  EXPECT_EQ(ToHex(out), kAuthClientAlert);
  ASSERT_TRUE(TlsReceive(context, FromHex(kAuthServerAlert), plaintext, out));
  EXPECT_EQ(context.state, State::kClosed);
}

}  // namespace
}  // namespace quenmark::tls
