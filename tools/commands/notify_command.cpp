#include <charconv>
#include <memory>

#include "tools/base/table.h"
#include "tools/commands/commands.h"
#include "tools/preferences/notifications.h"

namespace quorvelctl {

void addNotifyCommand(CLI::App& app, Context& context) {
  struct Arguments {
    std::string name;
    std::string state = "0";
  };
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app.add_subcommand("notify", "Post a notification");
  command->add_option("NAME", arguments->name, "Its name, as com.corvix.telvo.tasking_changed")->required();
  command->add_option("STATE", arguments->state, "Its state, a 64-bit number (0 if not given)");
  command->callback([arguments, &context] {
    const std::string& text = arguments->state;
    uint64_t state = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), state);
    if (!isNotificationName(arguments->name)) {
      context.fail("\"" + printable(arguments->name) + "\" can't name a notification", kWrongUsage);
    } else if (failure != std::errc() || end != text.data() + text.size()) {
      context.fail("a state is a whole number from 0 to 18446744073709551615, not \"" + printable(text) + '"',
                   kWrongUsage);
    } else if (const std::error_code error = post(context, arguments->name, state)) {
      context.fail("can't post " + arguments->name + " below " + context.path("/run/quorveld/notify") + ": " +
                   error.message());
    }
  });
}

}  // namespace quorvelctl
