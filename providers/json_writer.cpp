#include "platform/code_page.h"
#include "providers/json.h"
#include "providers/string_builder.h"

#include <fmt/format.h>

#include <string>

namespace quenmark::providers {

namespace {

// What follows the backslash for the eight characters that have a short escape, 0 for the others.
char ShortEscape(char c) {
  switch (c) {
    case '"':
    case '\\':
    case '/':
      return c;
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return 0;
  }
}

void AppendUnitEscape(std::string& text, std::uint32_t unit) {
  fmt::format_to(std::back_inserter(text), "\\u{:04X}", unit);
}

void AppendCharacterEscape(std::string& text, std::uint32_t codePoint) {
  if (codePoint < 0x10000) {
    AppendUnitEscape(text, codePoint);
    return;
  }
  AppendUnitEscape(text, 0xD800 + ((codePoint - 0x10000) >> 10));
  AppendUnitEscape(text, 0xDC00 + ((codePoint - 0x10000) & 0x3FF));
}

std::string Encoded(std::string_view text) {
  std::string encoded;
  encoded.reserve(text.size() + 2);
  encoded += '"';
  for (std::size_t at = 0; at < text.size();) {
    const char c = text[at];
    if (const char escape = ShortEscape(c); escape != 0) {
      encoded += '\\';
      encoded += escape;
      ++at;
    } else if (c >= 32 && c <= 126) {
      encoded += c;
      ++at;
    } else {
      const platform::DecodedCharacter character = platform::DecodeUtf8(text, at);
      AppendCharacterEscape(encoded, character.codePoint);
      at += character.length;
    }
  }
  encoded += '"';
  return encoded;
}

void Write(const JsonValue& value, cStringBuilder& out) {
  switch (value.Kind()) {
    case JsonKind::kEmpty:
    case JsonKind::kNull:
      out.Append("null");
      return;
    case JsonKind::kBoolean:
      out.Append(value.Boolean() ? "true" : "false");
      return;
    case JsonKind::kNumber:
      out.Append(value.Characters());
      return;
    case JsonKind::kText:
      out.Append(Encoded(value.Characters()));
      return;
    case JsonKind::kDate:
      out.AppendByVal("\"" + value.Text() + "\"");
      return;
    case JsonKind::kObject: {
      std::string_view before = "{\"";
      for (const JsonMember& member : value.Members()) {
        out.Append(before);
        out.Append(member.key);
        out.Append("\":");
        Write(member.value, out);
        before = ",\"";
      }
      out.Append(value.Members().empty() ? "{}" : "}");
      return;
    }
    case JsonKind::kList: {
      std::string_view before = "[";
      for (const JsonValue& item : value.Items()) {
        out.Append(before);
        Write(item, out);
        before = ",";
      }
      out.Append(value.Items().empty() ? "[]" : "]");
      return;
    }
  }
}

}  // namespace

std::string ToJson(const JsonValue& value) {
  cStringBuilder out;
  Write(value, out);
  return out.toString();
}

}  // namespace quenmark::providers
