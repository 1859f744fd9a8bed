#include <memory>

#include "tools/commands/commands.h"
#include "tools/preferences/notifications.h"

namespace quorvelctl {

void addNotifyCommand(CLI::App& app, Context& context) {
  struct Arguments {
    std::string name;
    uint64_t state = 0;
  };
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app.add_subcommand("notify", "Post a notification");
  command->add_option("NAME", arguments->name, "Its name, as com.corvix.telvo.tasking_changed")->required();
  command->add_option("STATE", arguments->state, "Its state, a 64-bit number (0 if not given)");
  command->callback([arguments, &context] {
    if (!isNotificationName(arguments->name)) {
      context.fail("\"" + arguments->name + "\" can't name a notification", kWrongUsage);
    } else if (const std::error_code error = post(context, arguments->name, arguments->state)) {
      context.fail("can't post " + arguments->name + " below " + context.path("/run/quorveld/notify") + ": " +
                   error.message());
    }
  });
}

}  // namespace quorvelctl
