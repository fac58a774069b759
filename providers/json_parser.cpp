#include "platform/code_page.h"
#include "platform/utf16_joiner.h"
#include "providers/json.h"
#include "providers/json_key_set.h"
#include "providers/json_number.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::providers {

namespace {

constexpr std::string_view kDuplicateKey = "This key is already associated with an element of this collection";
constexpr std::size_t kTailUnits = 20;  // UTF-16 units of the text that a missing bracket is reported with

bool IsNumberCharacter(char c) {
  return (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '+' || c == 'e' || c == 'E';
}

bool IsWhiteSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::optional<std::uint32_t> HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return std::nullopt;
}

// The last UTF-16 units of a text; half of a pair is U+FFFD.
std::string LastUnits(std::string_view text, std::size_t count) {
  std::size_t start = text.size() - std::min(text.size(), count * 3);  // a unit takes at most 3 bytes
  while (start < text.size() && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) ++start;
  const std::u16string units = platform::ToUtf16(text.substr(start));
  return platform::FromUtf16(std::u16string_view(units).substr(units.size() - std::min(units.size(), count)));
}

// Whether any of eight characters is `c`.
bool AnyIs(std::uint64_t word, char c) {
  constexpr std::uint64_t kOnes = 0x0101010101010101u;
  const std::uint64_t difference = word ^ (kOnes * static_cast<unsigned char>(c));
  return ((difference - kOnes) & ~difference & (kOnes * 0x80)) != 0;
}

// Position of the next `quote` or backslash at or after `at`, the text's size when there is none.
std::size_t FindStringEnd(std::string_view text, std::size_t at, char quote) {
  for (std::uint64_t word = 0; at + sizeof word <= text.size(); at += sizeof word) {
    std::memcpy(&word, text.data() + at, sizeof word);
    if (AnyIs(word, quote) || AnyIs(word, '\\')) break;
  }
  while (at < text.size() && text[at] != quote && text[at] != '\\') ++at;
  return at;
}

// Collects the characters of a text that holds escapes; joins the two halves of a pair.
class EscapedText {
 public:
  std::string_view View() {
    m_units.Flush(m_text);
    return m_text;
  }
  void Clear() { m_text.clear(); }
  void Append(std::string_view characters) {
    if (characters.empty()) return;
    m_units.Flush(m_text);
    m_text += characters;
  }
  void AppendUnit(std::uint32_t unit) { m_units.Append(m_text, unit); }

 private:
  std::string m_text;
  platform::Utf16Joiner m_units;
};

// The same for the whole run of the program, another one in the next.
std::uint64_t KeySeed() {
  static const std::uint64_t seed = (std::uint64_t{std::random_device{}()} << 32) | std::random_device{}();
  return seed;
}

}  // namespace

// The cursor: a text and a position that every routine moves past what it consumed.
class JsonParser {
 public:
  explicit JsonParser(JsonDocument& document) : m_document(document) {}

  void Parse(std::string_view text) {
    if (text.size() <= kJsonTextLimit) m_text = m_document.Keep(text);
    Skip();
    const char first = Current();
    if (AtEnd() || (first != '{' && first != '[')) {
      m_document.m_errors = "Invalid JSON";
      return;
    }
    ParseContainer(first, m_document.m_root);
    m_document.m_hasRoot = true;
  }

 private:
  bool AtEnd() const { return m_at >= m_text.size(); }
  char Current() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

  void Skip() {
    while (m_at < m_text.size()) {
      switch (m_text[m_at]) {
        case ' ':
        case '\t':
        case '\r':
        case '\n':
        case '(':
        case ')':
          ++m_at;
          break;
        case '/':
        case '*':
          SkipComments();
          return;
        default:
          return;
      }
    }
  }
  void SkipComments();

  // Each returns false when it consumed nothing.
  bool ParseValue(JsonValue& value);
  bool ParseContainer(char bracket, JsonValue& value);
  bool ParseWord(std::string_view word, JsonValue parsed, std::string_view complaint, JsonValue& value);
  bool ParseNumber(JsonValue& value);
  bool ParseBoolean(JsonValue& value);

  void ParseObject(JsonValue& value);
  void ParseList(JsonValue& value);
  void ParseString(JsonValue& value);
  void DecodeEscape();
  std::string_view ParseKey();
  std::string_view ParseUnusualKey();
  void EndKeyQuote(std::string_view key);
  void EndEarly(char closing, std::size_t complaints);

  void Complain(std::string_view what, std::size_t position, std::string_view detail);
  void ComplainPlainly(std::string_view what, std::string_view detail);
  void AppendDetail(std::string_view detail);
  std::size_t UnitPosition(std::size_t offset);

  JsonDocument& m_document;
  std::string_view m_text;
  std::size_t m_at = 0;
  std::size_t m_level = 0;
  bool m_stopped = false;        // nesting was too deep: nothing more is read
  std::size_t m_complaints = 0;  // made so far, kept or not

  // Elements and members of the containers that are open, the innermost last.
  std::vector<JsonValue> m_items;
  std::vector<JsonMember> m_members;
  EscapedText m_escaped;
  std::string m_scratch;

  // Where counting UTF-16 units stopped last; complaints come in the order of the text.
  std::size_t m_countedBytes = 0;
  std::size_t m_countedUnits = 0;
};

void JsonParser::SkipComments() {
  bool startOfComment = false;
  bool inComment = false;
  bool longComment = false;
  for (; !AtEnd(); ++m_at) {
    switch (m_text[m_at]) {
      case '\r':
      case '\n':
        if (!longComment) startOfComment = inComment = false;
        break;
      case '\t':
      case ' ':
      case '(':
      case ')':
        break;
      case '/':
        if (longComment) {
          if (startOfComment) startOfComment = inComment = longComment = false;
        } else {
          inComment = startOfComment;
          startOfComment = !startOfComment;
        }
        break;
      case '*':
        if (longComment || !startOfComment) {
          startOfComment = true;
        } else {
          startOfComment = false;
          inComment = longComment = true;
        }
        break;
      default:
        if (!inComment) return;
    }
  }
}

bool JsonParser::ParseValue(JsonValue& value) {
  Skip();
  const char first = Current();
  switch (first) {
    case '{':
    case '[':
      return ParseContainer(first, value);
    case '"':
    case '\'':
      ParseString(value);
      return true;
    case 't':
    case 'T':
    case 'f':
    case 'F':
      return ParseBoolean(value);
    case 'n':
      return ParseWord("null", JsonValue::Null(), "Invalid null value", value);
    default:
      return ParseNumber(value);
  }
}

bool JsonParser::ParseContainer(char bracket, JsonValue& value) {
  const bool isObject = bracket == '{';
  if (m_level == kJsonLevels) {
    Complain(isObject ? "Invalid Object" : "Invalid Array", m_at, m_text.substr(m_at));
    m_stopped = true;
    return false;
  }
  ++m_level;
  ++m_at;
  if (isObject) {
    ParseObject(value);
  } else {
    ParseList(value);
  }
  --m_level;
  return true;
}

void JsonParser::ParseObject(JsonValue& value) {
  const std::size_t first = m_members.size();
  JsonKeySet keys(m_members, first, KeySeed());
  while (true) {
    Skip();
    if (AtEnd()) {
      ComplainPlainly("Missing '}'", LastUnits(m_text, kTailUnits));
      break;
    }
    if (Current() == '}') {
      ++m_at;
      break;
    }
    if (Current() == ',') {
      ++m_at;
      Skip();
    }
    const std::string_view key = ParseKey();
    const std::size_t complaints = m_complaints;
    JsonValue member;
    if (!ParseValue(member)) {
      EndEarly('}', complaints);
      break;
    }
    if (keys.Contains(key)) {
      ComplainPlainly(kDuplicateKey, key);
      break;
    }
    m_members.push_back({key, member});
    if (m_stopped) break;
  }
  value = m_document.KeepObject(std::span(m_members).subspan(first));
  m_members.resize(first);
}

void JsonParser::ParseList(JsonValue& value) {
  const std::size_t first = m_items.size();
  while (true) {
    Skip();
    if (AtEnd()) {
      ComplainPlainly("Missing ']'", LastUnits(m_text, kTailUnits));
      break;
    }
    if (Current() == ']') {
      ++m_at;
      break;
    }
    if (Current() == ',') {
      ++m_at;
      Skip();
    }
    const std::size_t complaints = m_complaints;
    JsonValue item;
    if (!ParseValue(item)) {
      EndEarly(']', complaints);
      break;
    }
    m_items.push_back(item);
    if (m_stopped) break;
  }
  value = m_document.KeepList(std::span(m_items).subspan(first));
  m_items.resize(first);
}

// Ends a list or object at a value that consumed nothing. Its own closing bracket is taken in, so that what encloses it
// goes on in step; any other end leaves a complaint.
void JsonParser::EndEarly(char closing, std::size_t complaints) {
  if (!m_stopped && !AtEnd() && Current() == closing) {
    ++m_at;
  } else if (m_complaints == complaints) {
    ComplainPlainly(closing == '}' ? "Missing '}'" : "Missing ']'", LastUnits(m_text, kTailUnits));
  }
}

void JsonParser::ParseString(JsonValue& value) {
  const char quote = m_text[m_at++];
  std::size_t start = m_at;
  m_at = FindStringEnd(m_text, start, quote);
  if (AtEnd() || m_text[m_at] == quote) {
    value = JsonDocument::Wrap(JsonKind::kText, m_text.substr(start, m_at - start));
    if (!AtEnd()) ++m_at;
    return;
  }
  m_escaped.Clear();
  while (!AtEnd() && m_text[m_at] == '\\') {
    m_escaped.Append(m_text.substr(start, m_at - start));
    ++m_at;
    DecodeEscape();
    start = m_at;
    m_at = FindStringEnd(m_text, start, quote);
  }
  m_escaped.Append(m_text.substr(start, m_at - start));
  if (!AtEnd()) ++m_at;
  value = JsonDocument::Wrap(JsonKind::kText, m_document.Keep(m_escaped.View()));
}

// The character behind a backslash. Four characters behind "u" that are no hexadecimal code stand for U+FFFD.
void JsonParser::DecodeEscape() {
  if (AtEnd()) return;
  const char escaped = m_text[m_at++];
  switch (escaped) {
    case 'b':
      m_escaped.Append("\b");
      return;
    case 'f':
      m_escaped.Append("\f");
      return;
    case 'n':
      m_escaped.Append("\n");
      return;
    case 'r':
      m_escaped.Append("\r");
      return;
    case 't':
      m_escaped.Append("\t");
      return;
    case 'u':
      break;
    default:
      m_escaped.Append(m_text.substr(m_at - 1, 1));
      return;
  }
  std::uint32_t code = 0;
  bool isHex = true;
  for (std::size_t units = 0; units < 4;) {
    if (AtEnd()) return;
    const platform::DecodedCharacter character = platform::DecodeUtf8(m_text, m_at);
    const std::optional<std::uint32_t> digit = HexValue(m_text[m_at]);
    isHex = isHex && digit.has_value();
    code = code * 16 + digit.value_or(0);
    units += character.codePoint >= 0x10000 ? 2 : 1;
    m_at += character.length;
  }
  m_escaped.AppendUnit(isHex ? code : platform::kReplacementCharacter);
}

bool JsonParser::ParseNumber(JsonValue& value) {
  const std::size_t start = m_at;
  while (m_at < m_text.size() && IsNumberCharacter(m_text[m_at])) ++m_at;
  const std::string_view characters = m_text.substr(start, m_at - start);
  if (IsPlainDecimal(characters)) {
    value = JsonDocument::Wrap(JsonKind::kNumber, characters);
  } else if (DecimalText(characters, m_scratch)) {
    value = JsonDocument::Wrap(JsonKind::kNumber, m_document.Keep(m_scratch));
  }
  return m_at > start;
}

bool JsonParser::ParseBoolean(JsonValue& value) {
  constexpr std::string_view kComplaint = "Invalid Boolean";
  if (Current() == 't') return ParseWord("true", JsonValue::OfBoolean(true), kComplaint, value);
  return ParseWord("false", JsonValue::OfBoolean(false), kComplaint, value);
}

bool JsonParser::ParseWord(std::string_view word, JsonValue parsed, std::string_view complaint, JsonValue& value) {
  if (m_text.substr(m_at, word.size()) != word) {
    Complain(complaint, m_at, m_text.substr(m_at));
    return false;
  }
  m_at += word.size();
  value = parsed;
  return true;
}

std::string_view JsonParser::ParseKey() {
  Skip();
  if (Current() != '"') return ParseUnusualKey();
  const std::size_t start = m_at + 1;
  std::size_t end = start;
  while (end < m_text.size() && m_text[end] != '"' && m_text[end] != '\'' && m_text[end] != ':' &&
         !IsWhiteSpace(m_text[end])) {
    ++end;
  }
  if (end == m_text.size() || m_text[end] != '"') return ParseUnusualKey();
  const std::string_view key = m_text.substr(start, end - start);
  m_at = end + 1;
  EndKeyQuote(key);
  if (Current() != ':') return key;
  ++m_at;
  return key;
}

// A key in any form: quotes open and close, white space drops out, the first colon outside quotes ends it.
std::string_view JsonParser::ParseUnusualKey() {
  bool inDoubleQuote = false;
  bool inApostrophe = false;
  m_scratch.clear();
  while (!AtEnd()) {
    const char c = m_text[m_at++];
    if (c == '"' || c == '\'') {
      bool& inQuote = c == '"' ? inDoubleQuote : inApostrophe;
      inQuote = !inQuote;
      if (inQuote) continue;
      EndKeyQuote(m_scratch);
      if (Current() != ':') break;
    } else if (c == ':' && !inDoubleQuote && !inApostrophe) {
      break;
    } else if (!IsWhiteSpace(c)) {
      m_scratch += c;
    }
  }
  return m_document.Keep(m_scratch);
}

// Behind the closing quote of a key.
void JsonParser::EndKeyQuote(std::string_view key) {
  Skip();
  if (Current() != ':') Complain("Invalid Key", m_at, key);
}

// The 1-based position of a byte offset, in UTF-16 units.
std::size_t JsonParser::UnitPosition(std::size_t offset) {
  m_countedUnits += platform::Utf16Length(m_text.substr(m_countedBytes, offset - m_countedBytes));
  m_countedBytes = offset;
  return m_countedUnits + 1;
}

void JsonParser::Complain(std::string_view what, std::size_t position, std::string_view detail) {
  ++m_complaints;
  std::string& errors = m_document.m_errors;
  if (errors.size() >= kJsonErrorLimit) return;
  errors += what;
  errors += " at position ";
  errors += std::to_string(UnitPosition(position));
  errors += " : ";
  AppendDetail(detail);
}

void JsonParser::ComplainPlainly(std::string_view what, std::string_view detail) {
  ++m_complaints;
  if (m_document.m_errors.size() >= kJsonErrorLimit) return;
  m_document.m_errors += what;
  m_document.m_errors += ": ";
  AppendDetail(detail);
}

// The end of a complaint, as far as the limit allows.
void JsonParser::AppendDetail(std::string_view detail) {
  std::string& errors = m_document.m_errors;
  std::size_t size = std::min(detail.size(), kJsonErrorLimit - std::min(kJsonErrorLimit, errors.size()));
  while (size < detail.size() && size > 0 && (static_cast<unsigned char>(detail[size]) & 0xC0) == 0x80) --size;
  errors += detail.substr(0, size);
  errors += "\r\n";
}

JsonDocument ParseJson(std::string_view text) {
  JsonDocument document;
  JsonParser(document).Parse(text);
  return document;
}

}  // namespace quenmark::providers
