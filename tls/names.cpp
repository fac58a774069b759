#include "tls/names.h"

#include <fmt/format.h>

#include <optional>
#include <string_view>

namespace quenmark::tls {

namespace {

// Each list is code|name pairs, looked up on use.
constexpr std::string_view kStates =
    "0|New|1|Closed|2|HandshakeStart|3|ExpectServerHello|4|ExpectExtensions|5|ExpectServerFinished|"
    "6|ExpectClientHello|7|ExpectClientKeyExchange|8|ExpectClientFinished|9|PostHandshake|10|Shutdown";

constexpr std::string_view kMessages =
    "1|client_hello|2|server_hello|4|new_session_ticket|5|end_of_early_data|8|encrypted_extensions|11|certificate|"
    "12|server_key_exchange|13|certificate_request|14|server_hello_done|15|certificate_verify|16|client_key_exchange|"
    "20|finished|24|key_update|25|compressed_certificate|254|message_hash";

constexpr std::string_view kExtensions =
    "0|server_name|1|max_fragment_length|2|client_certificate_url|3|trusted_ca_keys|4|truncated_hmac|5|status_request|"
    "6|user_mapping|7|client_authz|8|server_authz|9|cert_type|10|supported_groups|11|ec_point_formats|12|srp|"
    "13|signature_algorithms|14|use_srtp|15|heartbeat|16|application_layer_protocol_negotiation|17|status_request_v2|"
    "18|signed_certificate_timestamp|19|client_certificate_type|20|server_certificate_type|21|padding|"
    "22|encrypt_then_mac|23|extended_master_secret|24|token_binding|25|cached_info|26|tls_lts|"
    "27|compress_certificate|28|record_size_limit|29|pwd_protect|30|pwd_clear|31|password_salt|32|ticket_pinning|"
    "33|tls_cert_with_extern_psk|34|delegated_credential|35|session_ticket|36|TLMSP|37|TLMSP_proxying|"
    "38|TLMSP_delegate|39|supported_ekt_ciphers|40|Reserved|41|pre_shared_key|42|early_data|43|supported_versions|"
    "44|cookie|45|psk_key_exchange_modes|46|Reserved|47|certificate_authorities|48|oid_filters|"
    "49|post_handshake_auth|50|signature_algorithms_cert|51|key_share|52|transparency_info|53|connection_id|"
    "54|connection_id|55|external_id_hash|56|external_session_id|65281|renegotiation_info";

constexpr std::string_view kAlerts =
    "0|Close notify|10|Unexpected message|20|Bad record mac|21|Decryption failed|22|Record overflow|"
    "30|Decompression failure|40|Handshake failure|41|No certificate|42|Bad certificate|43|Unsupported certificate|"
    "44|Certificate revoked|45|Certificate expired|46|Certificate unknown|47|Illegal parameter|"
    "48|Unknown certificate authority|50|Decode error|51|Decrypt error|70|Protocol version|71|Insufficient security|"
    "80|Internal error|90|User canceled|100|No renegotiation|109|Missing extension|110|Unsupported extension|"
    "112|Unrecognized name|116|Certificate required|120|No application protocol";

constexpr std::string_view kSchemes =
    "513|RSA_PKCS1_SHA1|515|ECDSA_SHA1|769|RSA_PKCS1_SHA224|1025|RSA_PKCS1_SHA256|1027|ECDSA_SECP256R1_SHA256|"
    "1281|RSA_PKCS1_SHA384|1283|ECDSA_SECP384R1_SHA384|1537|RSA_PKCS1_SHA512|1539|ECDSA_SECP521R1_SHA512|"
    "2052|RSA_PSS_RSAE_SHA256|2053|RSA_PSS_RSAE_SHA384|2054|RSA_PSS_RSAE_SHA512|2057|RSA_PSS_PSS_SHA256|"
    "2058|RSA_PSS_PSS_SHA384|2059|RSA_PSS_PSS_SHA512";

std::optional<std::string_view> Find(std::string_view list, int code) {
  const std::string wanted = std::to_string(code);
  while (!list.empty()) {
    const std::string_view key = list.substr(0, list.find('|'));
    list.remove_prefix(key.size() + 1);
    const std::string_view name = list.substr(0, list.find('|'));
    if (key == wanted) return name;
    list.remove_prefix(name.size() < list.size() ? name.size() + 1 : name.size());
  }
  return std::nullopt;
}

std::string Plain(std::string_view list, int code) {
  const auto name = Find(list, code);
  return name ? std::string(*name) : fmt::format("Unknown ({})", code);
}

std::string WithCode(std::string_view list, int code) {
  const auto name = Find(list, code);
  return name ? fmt::format("{} ({})", *name, code) : fmt::format("Unknown ({})", code);
}

}  // namespace

std::string StateName(State state) {
  return Plain(kStates, static_cast<int>(state));
}
std::string AlertName(int code) {
  return Plain(kAlerts, code);
}
std::string SignatureSchemeName(int code) {
  return Plain(kSchemes, code);
}
std::string MessageName(int type) {
  return WithCode(kMessages, type);
}
std::string ExtensionName(int type) {
  return WithCode(kExtensions, type);
}
std::string Hexadecimal(int code) {
  return fmt::format("0x{:04X}", code);
}

}  // namespace quenmark::tls
