#include "SharedCommand.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "JSONProperties.h"
#include "Session.h"
#include "values/JSONReader.h"

namespace zun {

namespace {

using zunreporting::PropertyValue;

struct SharedOptions {
  SessionOptions session;
  std::string key;
  std::optional<std::string> value;
};

int wrongUsage(const Context& context, const char* text) {
  context.errors << "zunreportingctl: " << text << '\n';
  return kExitUsage;
}

int run(const SharedOptions& options, const Context& context) {
  if (options.session.info.hierarchyToken.empty()) {
    return wrongUsage(context, "data is shared within a hierarchy: name it with --parent TOKEN:LEVEL");
  }
  std::optional<PropertyValue> value;
  if (options.value) {
    const auto parsed = parseJSON(*options.value);
    if (parsed && parsed->isNone())
      return wrongUsage(context, "null is no value; `shared remove` removes a key");
    value = parsed ? propertyOf(*parsed) : PropertyValue(*options.value);
  }
  const auto session = introduceSession(options.session, context);
  if (session == nullptr) return kExitNoSession;
  const auto updated = session->updateSharedDataForKey(options.key, value);
  if (!updated) return tellFailure(context, updated.failure, updated.error);
  return finishSession(*session, context) ? kExitOK : kExitFailed;
}

void addKey(CLI::App& command, SharedOptions& options) {
  command.add_option("KEY", options.key, "The entry's key")->required()->check([](const std::string& key) {
    return key.empty() ? std::string("must not be empty") : std::string();
  });
}

}  // namespace

Subcommand addSharedCommand(CLI::App& app) {
  const auto options = std::make_shared<SharedOptions>();
  options->session.defaultClientName = "zunreportingctl";
  CLI::App* const shared =
      app.add_subcommand("shared", "Changes the data that the sessions of a hierarchy share");
  shared->footer(
      "That data accompanies their messages, and lasts as long as the daemon runs. Needs --parent.\n"
      "Exit codes: 0 done, 1 the daemon did not take it, 2 wrong usage, 3 no session.");
  shared->require_subcommand(1);

  CLI::App* const set = shared->add_subcommand("set", "Sets one entry");
  addKey(*set, *options);
  set->add_option("VALUE", options->value,
                  "Its value: JSON, or else a text as it stands (after -- if it begins with -)")
      ->required();
  CLI::App* const remove =
      shared->add_subcommand("remove", "Removes one entry; that there is none is no error");
  addKey(*remove, *options);
  addSessionOptions(*set, options->session);
  addSessionOptions(*remove, options->session);
  return {shared, [options](const Context& context) { return run(*options, context); }};
}

}  // namespace zun
