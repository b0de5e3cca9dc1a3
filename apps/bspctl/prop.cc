// bspctl prop: the shared property table.
#include <cstring>
#include <memory>
#include <optional>

#include "apps/bspctl/ctl.h"
#include "apps/bspctl/sysv.h"
#include "bsp/bsp.h"
#include "bsp/cache/system_property.h"
#include "bsp/shmc/shm_handle.h"
#include "bsp/shmc/svipc_mutex.h"

namespace ctl {
namespace {

constexpr key_t kKey = 0x66000000;
constexpr int kMaxValue = SystemProperty::kMaxValue;

constexpr const char* kNoTable = "there is no property table yet: no module has set one";

struct Property {
  std::string key;
  std::string value;  // all bytes of the slot
};

// All properties in slot order; empty when there is no table.
std::optional<std::vector<Property>> ReadProperties() {
  shmc::ShmHandle<SystemProperty::KeyV, shmc::impl::SVIPCShmAlloc<false>> table;
  if (!table.InitForRead(SystemProperty::kSegment, SystemProperty::kSegmentSize))
    return std::nullopt;
  shmc::impl::SVIPCMutex mutex;
  mutex.Open(SystemProperty::kSegment);
  // A holder that does not let go must not hide the table: it is read as it stands then.
  const shmc::impl::SVIPCGuard guard(&mutex, SystemProperty::kLockPatienceMs);
  std::vector<Property> properties;
  for (int i = 0; i < SystemProperty::kSlots; ++i) {
    const SystemProperty::KeyV& slot = table.ptr()[i];
    if (slot.key[0] == '\0') continue;
    properties.push_back({std::string(slot.key, strnlen(slot.key, sizeof slot.key)),
                          std::string(slot.value, kMaxValue)});
  }
  return properties;
}

// The store keeps no lengths: what follows the last byte that is not zero is taken as unused.
std::string WithoutTrailingZeros(const std::string& bytes) {
  return bytes.substr(0, bytes.find_last_not_of('\0') + 1);
}

// The slot that the store's own search finds: the first whose key begins with the given one.
const Property* Find(const std::vector<Property>& properties, const std::string& key) {
  for (const Property& property : properties) {
    if (property.key.compare(0, key.size(), key) == 0) return &property;
  }
  return nullptr;
}

Json ToJsonLine(const std::string& key, const std::string& value) {
  Json line = {{"key", Readable(key)}};
  line.update(ToJson(value));
  return line;
}

int List(bool as_json) {
  const auto properties = ReadProperties();
  if (!properties) return FailToAttach(kKey, kFailed, kNoTable);
  Table table({"KEY", "VALUE"});
  for (const Property& property : *properties) {
    const std::string value = WithoutTrailingZeros(property.value);
    if (as_json) PrintJson(ToJsonLine(property.key, value));
    table.AddRow({Readable(property.key), OneLine(value)});
  }
  if (!as_json) table.Print();
  return kDone;
}

int Get(const std::string& key, int size, bool as_json) {
  const auto properties = ReadProperties();
  if (!properties) return FailToAttach(kKey, kFailed, kNoTable);
  const Property* property = Find(*properties, key);
  if (property == nullptr) return Fail(kFailed, "no property %s", key.c_str());
  const std::string value = size > 0 ? property->value.substr(0, static_cast<size_t>(size))
                                     : WithoutTrailingZeros(property->value);
  if (as_json) {
    PrintJson(ToJsonLine(property->key, value));
  } else {
    PrintLine(Readable(value));
  }
  return kDone;
}

int Set(const std::string& key, const std::string& value, bool is_hex) {
  std::string bytes = value;
  if (is_hex && !FromHex(value, &bytes)) return Fail(kUsage, "--hex: the value is no hex text");
  if (bytes.empty() || bytes.size() > kMaxValue) {
    return Fail(kUsage, "value of %zu bytes: give 1 to %d", bytes.size(), kMaxValue);
  }
  // The store matches keys by their beginning, and would write into the longer one.
  if (const auto properties = ReadProperties()) {
    const Property* found = Find(*properties, key);
    if (found != nullptr && found->key != key) {
      return Fail(kFailed, "%s would overwrite %s, which begins with it: give the whole key",
                  key.c_str(), found->key.c_str());
    }
  }
  system_property_set_journal(1);
  if (system_property_set(key.c_str(), bytes.data(), static_cast<int>(bytes.size())) == 0) {
    return kDone;
  }
  if (!ReadProperties()) return FailToAttach(kKey, kFailed, "cannot make the property table");
  return Fail(kFailed, "cannot set %s: all %d properties are taken", key.c_str(),
              SystemProperty::kSlots);
}

std::string CheckKey(const std::string& key) {
  return key.empty() || key.size() > 31 ? "a key has 1 to 31 bytes" : std::string();
}

}  // namespace

void AddProp(CLI::App* app, Context* context) {
  CLI::App* noun = app->add_subcommand("prop", "the shared property table");
  noun->require_subcommand(1);
  AddVerb(noun, context, "list", "show all properties", [=] { return List(context->json); });

  auto key = std::make_shared<std::string>();
  auto value = std::make_shared<std::string>();
  auto size = std::make_shared<int>(0);
  auto is_hex = std::make_shared<bool>(false);

  CLI::App* get = AddVerb(noun, context, "get", "show one property",
                          [=] { return Get(*key, *size, context->json); });
  get->add_option("key", *key, "name of the property")->required()->check(CheckKey);
  get->add_option("--size", *size, "bytes to show; without it, up to the last that is not zero")
      ->check(CLI::Range(1, kMaxValue));

  CLI::App* set =
      AddVerb(noun, context, "set", "store a property", [=] { return Set(*key, *value, *is_hex); });
  set->add_option("key", *key, "name of the property, at most 31 bytes")
      ->required()
      ->check(CheckKey);
  set->add_option("value", *value, "1 to 223 bytes")->required();
  set->add_flag("--hex", *is_hex, "the value is hex digits");
}

}  // namespace ctl
