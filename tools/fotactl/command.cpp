#include "command.h"

std::string full_name(const command& command) {
    return command.group == nullptr ? command.name : std::string(command.group) + " " + command.name;
}
