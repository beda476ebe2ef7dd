#include "cli/config_file.h"

#include <fmt/format.h>
#include <toml++/toml.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

namespace metricdb {
namespace {

[[noreturn]] void fail_config(const std::string &path, const toml::source_region &where, const std::string &why) {
  throw CLI::ConfigError(fmt::format("{}:{}: {}", path, where.begin.line, why));
}

toml::table parsed(const std::string &path) {
  std::ifstream file(path);
  if (!file) throw CLI::ConfigError(fmt::format("{}: {}", path, std::strerror(errno)));
  try {
    return toml::parse(file, path);
  } catch (const toml::parse_error &error) {
    fail_config(path, error.source(), std::string(error.description()));
  }
}

// As on a command line. Empty for a node of another type.
std::string text_of(const toml::node &node) {
  if (const auto *const text = node.as_string()) return text->get();
  if (const auto *const number = node.as_integer()) return fmt::to_string(number->get());
  if (const auto *const number = node.as_floating_point()) return fmt::to_string(number->get());
  if (const auto *const flag = node.as_boolean()) return flag->get() ? "true" : "false";
  return "";
}

CLI::Option *option_of(CLI::App *command, const std::string &key) {
  if (key == "config" || key.starts_with("help")) return nullptr;
  CLI::Option *const option = command->get_option_no_throw("--" + key);
  return option != nullptr ? option : command->get_parent()->get_option_no_throw("--" + key);
}

void read_config(CLI::App *command, const std::string &path) {
  for (const auto &[key, node] : parsed(path)) {
    const std::string name(key.str());
    const std::string value = text_of(node);
    CLI::Option *const option = option_of(command, name);
    if (option == nullptr) fail_config(path, key.source(), fmt::format("there is no option \"{}\"", name));
    if (value.empty())
      fail_config(path, node.source(), name + ": a text that is not empty, a number or a boolean is expected");
    if (option->count() != 0) continue;  // of the command line
    try {
      option->add_result(value);
      option->run_callback();
    } catch (const CLI::ParseError &error) {
      fail_config(path, node.source(), error.what());
    }
  }
}

}  // namespace

void add_config_file(CLI::App *command) {
  command
      ->add_option_function<std::string>(
          "--config", [command](const std::string &path) { read_config(command, path); },
          "file of options in TOML, such as `influx = 8086`; the command line replaces them")
      ->type_name("FILE");
}

}  // namespace metricdb
