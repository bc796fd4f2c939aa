#include "commands.h"

#include "check_command.h"
#include "device_commands.h"
#include "explain_commands.h"
#include "history_commands.h"
#include "local_update_commands.h"
#include "log_command.h"
#include "session_commands.h"
#include "status_command.h"
#include "watch_command.h"
#include "whole_update_commands.h"

std::vector<command_section> all_commands() {
    return {
        {"Where the device stands", status_commands()},
        {"Where the device stands", check_commands()},
        {"Whole updates", update_commands()},
        {"Updates over the air, step by step", session_commands()},
        {"Updates by side-load and by script", local_update_commands()},
        {"Updates by side-load and by script", whole_sideload_commands()},
        {"History and configuration", history_commands()},
        {"Device", device_commands()},
        {"Looking on", watch_commands()},
        {"Looking on", log_commands()},
        {"Looking on", explain_commands()},
    };
}
