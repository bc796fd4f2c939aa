#include "modem_file.h"

extern "C" int modem2_get_info(modem2_info* info) {
    *info = {};
    platform::read_modem_file(info);
    return 0;
}
