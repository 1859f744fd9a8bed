#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/base/files.h"
#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/preferences/notifications.h"
#include "tools/preferences/preference_file.h"
#include "tools/preferences/preference_keys.h"

namespace quorvelctl {
namespace {

constexpr const char* kChanged = "com.corvix.quorvel.pref_changed";
constexpr const char* kManagedFile = "/Library/Managed Preferences/mobile/.GlobalPreferences.plist";

std::string domainPath(const Context& context, std::string_view domain) {
  return context.path("/var/mobile/Library/Preferences/") + std::string(domain) + ".plist";
}

/// The list at `path`; a failure has been told.
std::optional<PreferenceFile> load(Context& context, const std::string& path) {
  std::string error;
  std::optional<PreferenceFile> file = PreferenceFile::load(path, error);
  if (!file) context.fail(error);
  return file;
}

/// The key of that name; what is wrong with the name has been told.
const PreferenceKey* knownKey(Context& context, const std::string& name) {
  const PreferenceKey* key = findPreferenceKey(name);
  if (!key)
    context.fail("there is no key \"" + name + "\"; quorvelctl prefs list shows them all", kWrongUsage);
  return key;
}

/// What holds for a key, as far as the files tell.
struct Setting {
  std::optional<StoredValue> own;
  std::optional<StoredValue> managed;  ///< wins
  bool ownCounts = false;              ///< the daemon can read `own` as the key's type

  std::string shown() const {
    if (managed) return managed->shown() + " (managed)";
    if (!own) return "-";
    return ownCounts ? own->shown() : own->shown() + " (of no use)";
  }
};

Setting settingOf(const PreferenceKey& key, const PreferenceFile& domain, const PreferenceFile& managed) {
  Setting setting;
  setting.own = domain.get(key.name);
  setting.ownCounts = setting.own && answers(*setting.own, key);
  if (key.profile) setting.managed = managed.get("QVProfile." + std::string(key.name));
  if (setting.managed && !answers(*setting.managed, key)) setting.managed.reset();
  return setting;
}

nlohmann::ordered_json jsonValue(const std::optional<StoredValue>& value) {
  if (!value) return nullptr;
  if (value->element == "true" || value->element == "false") return value->element == "true";
  nlohmann::ordered_json number = nlohmann::ordered_json::parse(value->text, nullptr, false);
  if ((value->element == "integer" || value->element == "real") && number.is_number()) return number;
  return value->element == "string" ? value->text : value->shown();
}

nlohmann::ordered_json jsonSetting(const PreferenceKey& key, const Setting& setting) {
  return {{"key", key.name},
          {"domain", key.domain},
          {"type", typeName(key.type)},
          {"value", jsonValue(setting.own)},
          {"usable", setting.ownCounts},
          {"managed", jsonValue(setting.managed)},
          {"default", key.absent},
          {"meaning", key.meaning}};
}

void listPreferences(Context& context) {
  const auto managed = load(context, context.path(kManagedFile));
  if (!managed) return;
  std::map<std::string_view, PreferenceFile> domains;
  nlohmann::ordered_json json = nlohmann::ordered_json::array();
  std::vector<std::vector<std::string>> rows{{"KEY", "VALUE", "TYPE", "DEFAULT", "MEANING"}};
  for (const PreferenceKey& key : preferenceKeys()) {
    if (!domains.contains(key.domain)) {
      auto file = load(context, domainPath(context, key.domain));
      if (!file) return;
      domains.emplace(key.domain, *std::move(file));
    }
    const Setting setting = settingOf(key, domains.at(key.domain), *managed);
    json.push_back(jsonSetting(key, setting));
    rows.push_back({std::string(key.name), printable(setting.shown()), std::string(typeName(key.type)),
                    std::string(key.absent), std::string(key.meaning)});
  }
  std::fputs((context.json ? jsonText(json) : table(rows)).c_str(), stdout);
}

void get(Context& context, const std::string& name) {
  const PreferenceKey* key = knownKey(context, name);
  if (!key) return;
  const auto domain = load(context, domainPath(context, key->domain));
  const auto managed = domain ? load(context, context.path(kManagedFile)) : std::nullopt;
  if (!managed) return;
  const Setting setting = settingOf(*key, *domain, *managed);
  if (context.json) {
    std::fputs(jsonText(jsonSetting(*key, setting)).c_str(), stdout);
  } else if (setting.managed || setting.own) {
    std::printf("%s\n", printable(setting.shown()).c_str());
  } else {
    context.fail(name + " is not set; that means " + std::string(key->absent));
  }
}

struct Change {
  std::string name;
  std::string value;
  bool noNotify = false;
};

void writeSetting(Context& context, const PreferenceKey& key, const PreferenceFile& file, bool notify) {
  const std::string path = domainPath(context, key.domain);
  std::error_code error = makeFolderOf(path);
  if (!error) error = replaceFile(path, file.text(), true);
  if (error) {
    context.fail("can't write " + path + ": " + error.message());
    return;
  }
  if (!notify) return;
  if ((error = post(context, kChanged, 0))) {
    context.fail(path + " is written, but the daemon could not be told: " + error.message());
  }
}

void set(Context& context, const Change& change) {
  const PreferenceKey* key = knownKey(context, change.name);
  if (!key) return;
  std::string error;
  const std::optional<StoredValue> value = typedValue(*key, change.value, error);
  if (!value) {
    context.fail(error, kWrongUsage);
    return;
  }
  auto file = load(context, domainPath(context, key->domain));
  if (!file) return;
  file->set(key->name, *value);
  writeSetting(context, *key, *file, !change.noNotify);
}

void unset(Context& context, const Change& change) {
  const PreferenceKey* key = knownKey(context, change.name);
  if (!key) return;
  auto file = load(context, domainPath(context, key->domain));
  if (!file || !file->unset(key->name)) return;  // absent already is what was asked for
  writeSetting(context, *key, *file, !change.noNotify);
}

CLI::App* addChange(CLI::App& prefs, const char* name, const char* help,
                    const std::shared_ptr<Change>& change) {
  CLI::App* command = prefs.add_subcommand(name, help);
  command->add_option("KEY", change->name, "One of those that prefs list shows")->required();
  command->add_flag("--no-notify", change->noNotify, "Leave it to others to tell the daemon");
  return command;
}

}  // namespace

void addPrefsCommands(CLI::App& app, Context& context) {
  CLI::App* prefs = app.add_subcommand("prefs", "Show and change the daemon's preferences");
  prefs->require_subcommand(1);
  prefs->add_subcommand("list", "All keys, their values and meanings")->callback([&context] {
    listPreferences(context);
  });

  auto name = std::make_shared<std::string>();
  CLI::App* getter = prefs->add_subcommand("get", "One key's value; fails if it is not set");
  getter->add_option("KEY", *name, "One of those that prefs list shows")->required();
  getter->callback([name, &context] { get(context, *name); });

  auto change = std::make_shared<Change>();
  CLI::App* setter = addChange(*prefs, "set", "Give a key a value, and tell the daemon", change);
  setter->add_option("VALUE", change->value, "Of the key's type")->required();
  setter->callback([change, &context] { set(context, *change); });
  addChange(*prefs, "unset", "Remove a key, and tell the daemon", change)->callback([change, &context] {
    unset(context, *change);
  });
}

}  // namespace quorvelctl
