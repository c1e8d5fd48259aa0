#include "app/localized_cli.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "settings/localization.h"

namespace corvane {
namespace {

// Columns a UTF-8 text takes in a terminal: East Asian wide characters take two.
std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    char32_t value = lead;
    std::size_t length = 1;
    if (lead >= 0xF0) {
      length = 4, value = lead & 0x07;
    } else if (lead >= 0xE0) {
      length = 3, value = lead & 0x0F;
    } else if (lead >= 0xC0) {
      length = 2, value = lead & 0x1F;
    }
    for (std::size_t k = 1; k < length && i + k < text.size(); ++k) {
      value = (value << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    i += length;
    const bool wide = (value >= 0x1100 && value <= 0x115F) || (value >= 0x2E80 && value <= 0xA4CF) ||
                      (value >= 0xAC00 && value <= 0xD7A3) || (value >= 0xF900 && value <= 0xFAFF) ||
                      (value >= 0xFE30 && value <= 0xFE4F) || (value >= 0xFF00 && value <= 0xFF60) ||
                      (value >= 0xFFE0 && value <= 0xFFE6) || (value >= 0x20000 && value <= 0x3FFFD);
    width += wide ? 2 : 1;
  }
  return width;
}

// The parser pads its left column by bytes; translated labels need padding by columns.
class ColumnAlignedFormatter : public CLI::Formatter {
 public:
  std::string make_option(const CLI::Option* option, bool isPositional) const override {
    const std::string name = "  " + make_option_name(option, isPositional) + make_option_opts(option);
    const std::string description = make_option_desc(option);
    const std::size_t column = get_column_width();
    std::string line = name;
    const std::size_t width = displayWidth(name);
    if (!description.empty()) {
      if (width >= column) {
        line += "\n" + std::string(column, ' ');
      } else {
        line += std::string(column - width, ' ');
      }
      for (const char c : description) {
        line.push_back(c);
        if (c == '\n') line += std::string(column, ' ');
      }
    }
    return line + "\n";
  }
};

// The subcommand the user was in when parsing stopped (the innermost one parsed), else the
// application itself.
const CLI::App* innermostParsed(const CLI::App* app) {
  for (const CLI::App* sub : app->get_subcommands()) {
    if (sub->parsed()) return innermostParsed(sub);
  }
  return app;
}

std::string commandPath(const CLI::App* app) {
  std::string path = app->get_name();
  for (const CLI::App* parent = app->get_parent(); parent != nullptr; parent = parent->get_parent()) {
    path = parent->get_name() + " " + path;
  }
  return path;
}

std::string joined(const std::vector<std::string>& items) {
  std::string text;
  for (const auto& item : items) text += (text.empty() ? "" : " ") + item;
  return text;
}

std::string missingArguments(const CLI::App* app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app->get_options()) {
    if (option->get_required() && option->count() == 0) names.push_back(option->get_name(true, false));
  }
  return joined(names);
}

// The option a parser message is about: the parser puts its name first ("--to: 1 required TEXT
// missing"); only that name is shown, never the parser's English around it.
std::optional<std::string> optionNamedIn(const CLI::App* app, const std::string& message) {
  const std::string name = message.substr(0, message.find(':'));
  for (const CLI::Option* option : app->get_options()) {
    if (option->check_name(name)) return name;
  }
  return std::nullopt;
}

// The option and the value of a value the parser could not convert ("Could not convert:
// --json = abc").
std::optional<std::pair<std::string, std::string>> convertedValue(const std::string& message) {
  const auto colon = message.find(": ");
  const auto equals = message.find(" = ", colon == std::string::npos ? 0 : colon);
  if (colon == std::string::npos || equals == std::string::npos) return std::nullopt;
  return std::make_pair(message.substr(colon + 2, equals - colon - 2), message.substr(equals + 3));
}

std::string describeFailure(const CLI::App* root, const CLI::Error& error) {
  const CLI::App* current = innermostParsed(root);
  std::string problem;
  if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
    const std::string missing = missingArguments(current);
    if (!missing.empty()) {
      problem = localizedFormat("cli.error.missing_argument", missing);
    } else if (current->get_require_subcommand_min() > 0 && !current->remaining().empty()) {
      problem = localizedFormat("cli.error.unknown_command", current->remaining().front());
    } else if (current->get_require_subcommand_min() > 0) {
      problem = localized("cli.error.command_required");
    } else {
      problem = localizedFormat("cli.error.invalid_arguments", error.what());
    }
  } else if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
    problem = localizedFormat("cli.error.unexpected_argument", joined(root->remaining(true)));
  } else if (const auto option = optionNamedIn(current, error.what());
             option && dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
    const bool tooMany = std::string_view(error.what()).find("At Most") != std::string_view::npos;
    problem = localizedFormat(tooMany ? "cli.error.given_twice" : "cli.error.missing_value", *option);
  } else if (const auto given = convertedValue(error.what());
             given && dynamic_cast<const CLI::ConversionError*>(&error) != nullptr) {
    problem = localizedFormat("cli.error.bad_value", given->first, given->second);
  } else if (dynamic_cast<const CLI::ConversionError*>(&error) != nullptr ||
             dynamic_cast<const CLI::ValidationError*>(&error) != nullptr ||
             dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
    problem = localizedFormat("cli.error.invalid_value", error.what());
  } else {
    problem = localizedFormat("cli.error.invalid_arguments", error.what());
  }
  return problem + "\n" + localizedFormat("cli.error.see_help", commandPath(current) + " --help") + "\n";
}

}  // namespace

void localizeParserTexts(CLI::App& app) {
  auto formatter = std::make_shared<ColumnAlignedFormatter>();
  app.formatter(formatter);
  formatter->label("Usage", localized("cli.help.usage"));
  formatter->label("OPTIONS", localized("cli.help.options_badge"));
  formatter->label("SUBCOMMAND", localized("cli.help.command_badge"));
  formatter->label("SUBCOMMANDS", localized("cli.help.commands_badge"));
  formatter->label("Positionals", localized("cli.help.arguments"));
  formatter->label("REQUIRED", localized("cli.help.required"));
  formatter->label("TEXT", localized("cli.help.text"));
  formatter->label("INT", localized("cli.help.number"));
  formatter->label("UINT", localized("cli.help.number"));
  formatter->label("FLOAT", localized("cli.help.number"));
  formatter->label("Needs", localized("cli.help.needs"));
  formatter->label("Excludes", localized("cli.help.excludes"));
  // Subcommands take the option group and the command group from their parent when created.
  app.option_defaults()->group(localized("cli.help.options"));
  app.group(localized("cli.help.commands"));
  app.set_help_flag("-h,--help", localized("cli.option.help"));
  app.failure_message(describeFailure);
}

void localizeSubcommandTexts(CLI::App& app) {
  for (CLI::App* sub : app.get_subcommands({})) {
    sub->set_help_flag("-h,--help", localized("cli.option.help"));
    localizeSubcommandTexts(*sub);
  }
}

}  // namespace corvane
