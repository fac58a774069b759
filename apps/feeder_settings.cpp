// feeder-settings: reads and writes the settings store from the command line.
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/message_loop.h"
#include "platform/run_time_error.h"
#include "platform/sqlite_store.h"
#include "platform/stop_signals.h"
#include "platform/store_text.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace quenmark;

constexpr int kExitFault = 1;
constexpr int kExitUsage = 2;
constexpr std::chrono::milliseconds kWatchInterval{10};

struct Arguments {
  std::string application;
  std::string section;
  std::string key;
  std::string value;
  bool base64 = false;
};

void Print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    throw platform::RunTimeError(platform::kErrorInvalidCall, "Standard output cannot be written.");
  }
}

// Whoever reads the output sees everything printed so far.
void FlushOutput() {
  if (std::fflush(stdout) != 0) {
    throw platform::RunTimeError(platform::kErrorInvalidCall, "Standard output cannot be written.");
  }
}

std::string ReadInput() {
  std::string bytes;
  char part[65536];
  while (const std::size_t size = std::fread(part, 1, sizeof part, stdin)) {
    bytes.append(part, size);
    if (bytes.size() > platform::kStoreValueLimit) break;  // the store refuses it
  }
  if (std::ferror(stdin) != 0) {
    throw platform::RunTimeError(platform::kErrorInvalidCall, "Standard input cannot be read.");
  }
  return bytes;
}

void Get(platform::SettingsStore& store, const Arguments& given) {
  Print(store.GetSetting(given.application, given.section, given.key) + "\n");
}

void Set(platform::SettingsStore& store, const Arguments& given) {
  std::string value = given.value == "-" ? ReadInput() : given.value;
  if (given.base64) value = platform::EncodeBase64(value);
  store.SaveSetting(given.application, given.section, given.key, value);
  store.Flush();
}

std::string Line(std::string_view key, std::string_view value) {
  return platform::EscapeLine(key) + "\t" + platform::EscapeLine(value) + "\n";
}

void List(platform::SettingsStore& store, const Arguments& given, const CLI::App& command) {
  if (command.count("SECTION") > 0) {
    for (const auto& [key, value] : store.GetAllSettings(given.application, given.section)) Print(Line(key, value));
    return;
  }
  const bool sections = command.count("APP") > 0;
  for (const std::string& name : sections ? store.Sections(given.application) : store.Applications()) {
    Print(platform::EscapeLine(name) + "\n");
  }
}

void Delete(platform::SettingsStore& store, const Arguments& given, const CLI::App& command) {
  if (command.count("KEY") > 0) {
    store.DeleteSetting(given.application, given.section, given.key);
  } else if (command.count("SECTION") > 0) {
    store.DeleteSection(given.application, given.section);
  } else {
    store.DeleteApplication(given.application);
  }
  store.Flush();
}

// Prints what has changed in a section since it was last looked at.
class SectionPrinter {
 public:
  SectionPrinter(platform::SettingsStore& store, const Arguments& given) : m_store(store), m_given(given) {}

  void PrintChanges() {
    const std::uint64_t revision = m_store.SectionRevision(m_given.application, m_given.section);
    if (m_revision == revision) return;
    m_revision = revision;
    std::map<std::string, std::string> before = std::exchange(m_values, {});
    auto pairs = m_store.GetAllSettings(m_given.application, m_given.section);
    for (auto& [key, value] : pairs) {
      auto known = before.find(key);
      if (known == before.end() || known->second != value) PrintLine(key, value);
      if (known != before.end()) before.erase(known);
      m_values.emplace(std::move(key), std::move(value));
    }
    for (const auto& [key, value] : before) PrintLine(key, {});
  }

 private:
  static void PrintLine(std::string_view key, std::string_view value) {
    Print(Line(key, value));
    FlushOutput();
  }

  platform::SettingsStore& m_store;
  const Arguments& m_given;
  std::optional<std::uint64_t> m_revision;
  std::map<std::string, std::string> m_values;
};

void Watch(platform::SqliteStore& store, platform::Clock& clock, const Arguments& given) {
  platform::MessageLoop loop(clock);
  const platform::StopSignals signals(loop, [&] { loop.Quit(); });
  SectionPrinter printer(store, given);
  printer.PrintChanges();
  std::exception_ptr fault;
  platform::Timer timer(loop, kWatchInterval, [&] {
    try {
      printer.PrintChanges();
    } catch (const std::exception&) {
      fault = std::current_exception();
      loop.Quit();
    }
  });
  timer.SetEnabled(true);
  loop.Run();
  if (fault) std::rethrow_exception(fault);
}

int Run(const CLI::App& app, const Arguments& given) {
  platform::SystemClock clock;
  const auto store = platform::SqliteStore::Open(platform::StorePath(), clock);
  const CLI::App& command = *app.get_subcommands().front();
  const std::string& name = command.get_name();
  if (name == "get") Get(*store, given);
  if (name == "set") Set(*store, given);
  if (name == "list") List(*store, given, command);
  if (name == "delete") Delete(*store, given, command);
  if (name == "watch") Watch(*store, clock, given);
  FlushOutput();
  return 0;
}

void Describe(CLI::App& app, Arguments& given) {
  app.require_subcommand(1);
  app.footer("The store is the file that FEEDER_STORE names, by default settings.db in the user's data folder.");
  // How many of application, section and key the command needs.
  const auto names = [&](CLI::App* command, int required, int allowed) {
    const std::pair<const char*, std::string*> parts[] = {
        {"APP", &given.application}, {"SECTION", &given.section}, {"KEY", &given.key}};
    for (int i = 0; i < allowed; ++i) command->add_option(parts[i].first, *parts[i].second)->required(i < required);
  };
  names(app.add_subcommand("get", "Print one value"), 3, 3);
  CLI::App* set = app.add_subcommand("set", "Store one value");
  names(set, 3, 3);
  set->add_option("VALUE", given.value, "The value; - reads it from standard input, byte for byte")->required();
  set->add_flag("--base64", given.base64, "Store the base64 text of the value");
  names(app.add_subcommand("list", "Print applications, sections, or keys with their values, in stored order"), 0, 2);
  names(app.add_subcommand("delete", "Delete a value, a section or an application"), 1, 3);
  names(app.add_subcommand("watch", "Print a section's values now and whenever they change, until interrupted"), 2, 2);
}

}  // namespace

int main(int argc, char** argv) {
  Arguments given;
  CLI::App app("Reads and writes the settings store.", "feeder-settings");
  Describe(app, given);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kExitUsage;
  }
  try {
    return Run(app, given);
  } catch (const std::exception& fault) {
    fmt::print(stderr, "feeder-settings: {}\n", fault.what());
    return kExitFault;
  }
}
