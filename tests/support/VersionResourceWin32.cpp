#include "support/VersionResource.h"

#include <windows.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace sxtest {
namespace {

// Every block starts with three 16-bit fields: its length, its value's
// length and its type (1: text value, counted in UTF-16 units with the NUL;
// 0: binary value, counted in bytes).
constexpr uint16_t kBinaryValue = 0;
constexpr uint16_t kTextValue = 1;
constexpr size_t kHeaderBytes = 6;
constexpr size_t kAlignment = 4;

constexpr uint32_t kFixedSignature = 0xFEEF04BD;
constexpr uint32_t kFixedStructVersion = 0x00010000;
constexpr uint32_t kFixedFlagsMask = 0x3F;     // VS_FFI_FILEFLAGSMASK
constexpr uint32_t kFileOsNtWindows32 = 0x00040004;  // VOS_NT_WINDOWS32
constexpr uint32_t kFileTypeDll = 2;               // VFT_DLL
constexpr int kVersionParts = 4;

struct Node {
  explicit Node(std::string key) : Key(std::move(key)) {}
  std::string Key;
  bool HasValue = false;
  bool Text = true;
  std::string Value;  // UTF-8 text or raw bytes
  std::vector<Node> Children;

  Node& Child(const std::string& key) {
    for (Node& c : Children)
      if (_stricmp(c.Key.c_str(), key.c_str()) == 0) return c;
    Children.emplace_back(key);
    return Children.back();
  }
};

std::wstring Wide(const std::string& utf8) {
  if (utf8.empty()) return {};
  const int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring w(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), w.data(), n);
  return w;
}

void Put16(std::string& out, size_t at, uint16_t v) {
  out[at] = static_cast<char>(v & 0xFF);
  out[at + 1] = static_cast<char>(v >> 8);
}

void Append32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

void AppendWide(std::string& out, const std::wstring& text) {
  for (wchar_t c : text) {
    out.push_back(static_cast<char>(c & 0xFF));
    out.push_back(static_cast<char>((c >> 8) & 0xFF));
  }
  out.append(2, '\0');
}

void Align(std::string& out) { out.append((kAlignment - out.size() % kAlignment) % kAlignment, '\0'); }

// One block: header, key, its value and its children, each on a 32-bit
// boundary. The length counts everything but padding after the last byte.
std::string Block(const std::string& key, uint16_t type, uint16_t valueLength, const std::string& value,
                  const std::vector<std::string>& children) {
  std::string b(kHeaderBytes, '\0');
  AppendWide(b, Wide(key));
  Align(b);
  b += value;
  for (const std::string& child : children) {
    Align(b);
    b += child;
  }
  Put16(b, 0, static_cast<uint16_t>(b.size()));
  Put16(b, 2, valueLength);
  Put16(b, 4, type);
  return b;
}

std::string Serialise(const Node& node) {
  std::vector<std::string> children;
  for (const Node& c : node.Children) children.push_back(Serialise(c));
  if (!node.HasValue) return Block(node.Key, kTextValue, 0, "", children);
  if (!node.Text)
    return Block(node.Key, kBinaryValue, static_cast<uint16_t>(node.Value.size()), node.Value, children);
  const std::wstring text = Wide(node.Value);
  std::string bytes;
  AppendWide(bytes, text);
  return Block(node.Key, kTextValue, static_cast<uint16_t>(text.size() + 1), bytes, children);
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// "09 04 b0 04" or "01,02, 03": pairs of digits between spaces and commas.
bool ParseHex(const std::string& text, std::string& bytes) {
  for (size_t i = 0; i < text.size();) {
    if (text[i] == ' ' || text[i] == ',') {
      ++i;
      continue;
    }
    if (i + 1 >= text.size() || HexDigit(text[i]) < 0 || HexDigit(text[i + 1]) < 0) return false;
    bytes.push_back(static_cast<char>(HexDigit(text[i]) * 16 + HexDigit(text[i + 1])));
    i += 2;
    if (i < text.size() && text[i] != ' ' && text[i] != ',') return false;
  }
  return true;
}

bool AddLine(Node& root, std::string line) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const size_t eq = line.find('=');
  if (line.empty() || line[0] != '\\' || eq == std::string::npos) return false;
  std::string value = line.substr(eq + 1), bytes;
  const bool hex = _strnicmp(value.c_str(), "hex:", 4) == 0;
  if (hex && !ParseHex(value.substr(4), bytes)) return false;
  Node* node = &root;
  for (size_t at = 1; at <= eq;) {
    size_t end = line.find('\\', at);
    if (end == std::string::npos || end > eq) end = eq;
    if (end == at) return false;  // an empty path step
    node = &node->Child(line.substr(at, end - at));
    at = end + 1;
  }
  node->HasValue = true;
  node->Text = !hex;
  node->Value = hex ? bytes : value;
  return true;
}

const Node* FindFileVersion(const Node& node) {
  if (node.HasValue && node.Text && _stricmp(node.Key.c_str(), "FileVersion") == 0) return &node;
  for (const Node& c : node.Children)
    if (const Node* found = FindFileVersion(c)) return found;
  return nullptr;
}

// The numbers of "1, 0, 8, 107" or "1.0.8.107" as the two halves of a
// fixed version.
std::string FixedFileInfo(const Node& root) {
  uint32_t parts[kVersionParts] = {};
  if (const Node* version = FindFileVersion(root)) {
    int part = 0;
    bool inNumber = false;
    for (char c : version->Value) {
      if (std::isdigit(static_cast<unsigned char>(c))) {
        parts[part] = parts[part] * 10 + static_cast<uint32_t>(c - '0');
        inNumber = true;
      } else if (inNumber && ++part == kVersionParts) {
        break;
      } else {
        inNumber = false;
      }
    }
  }
  const uint32_t high = parts[0] << 16 | (parts[1] & 0xFFFF), low = parts[2] << 16 | (parts[3] & 0xFFFF);
  std::string f;
  for (uint32_t v : {kFixedSignature, kFixedStructVersion, high, low, high, low, kFixedFlagsMask, 0u,
                     kFileOsNtWindows32, kFileTypeDll, 0u, 0u, 0u})
    Append32(f, v);
  return f;
}

}  // namespace

std::string BuildVersionResource(const std::string& text) {
  Node root("VS_VERSION_INFO");
  bool any = false;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    any |= AddLine(root, text.substr(start, end - start));
    start = end + 1;
  }
  if (!any) return {};
  std::vector<std::string> children;
  for (const Node& c : root.Children) children.push_back(Serialise(c));
  const std::string fixed = FixedFileInfo(root);
  return Block(root.Key, kBinaryValue, static_cast<uint16_t>(fixed.size()), fixed, children);
}

}  // namespace sxtest
