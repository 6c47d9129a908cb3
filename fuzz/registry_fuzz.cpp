// Registry store text: parsing never fails, writing back gives the same text,
// and every value line it understood re-parses to the same type and bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/text/RegistryText.h"

using namespace sx::plat;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  RegDocument doc = ParseRegistryText(text);

  std::string expected = text;
  if (!expected.empty() && expected.back() != '\n') expected.push_back('\n');
  if (WriteRegistryText(doc) != expected) __builtin_trap();

  std::string key;
  for (const RegLine& line : doc.Lines) {
    if (line.LineKind == RegLine::Kind::Key) key = line.Name;
    if (line.LineKind != RegLine::Kind::Value) continue;
    const std::string again =
        "[k]\n" + FormatRegistryValue(line.Name, line.Value.Type, line.Value.Data) + "\n";
    const RegDocument reparsed = ParseRegistryText(again);
    const RegValue* v = FindRegistryValue(reparsed, "k", line.Name);
    if (!v || v->Type != line.Value.Type || v->Data != line.Value.Data) __builtin_trap();
  }

  // A change is found again afterwards, whatever the store held before.
  SetRegistryValue(doc, key.empty() ? "Software\\Quillmark" : key, "FUZZ", 2, text.substr(0, 16));
  RegDocument back = ParseRegistryText(WriteRegistryText(doc));
  const RegValue* v = FindRegistryValue(back, key.empty() ? "Software\\Quillmark" : key, "fuzz");
  if (!v || v->Data != text.substr(0, 16)) __builtin_trap();
  return 0;
}
