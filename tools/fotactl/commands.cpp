#include "commands.h"

#include "check_command.h"
#include "device_commands.h"
#include "explain_commands.h"
#include "history_commands.h"
#include "local_update_commands.h"
#include "record_output.h"
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
        {"Looking on", explain_commands()},
    };
}

std::string full_name(const command& command) {
    return command.group == nullptr ? command.name : std::string(command.group) + " " + command.name;
}

answer record_answer(int result, const fota_history_rec& record, const std::string& message_for_none) {
    if (result != FOTA_RC_SUCCESS) return {result};
    if (record.rec_id == 0) return {.message = message_for_none, .data = {{"record", nullptr}}};
    return {.lines = record_lines(record), .data = {{"record", record_json(record)}}};
}
