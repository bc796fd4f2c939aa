#include "common/waiting_start.h"

#include <atomic>

#include "common/file_helpers.h"
#include "common/state_files.h"
#include "common/wake_lock.h"
#include "core/log.h"
#include "core/msgbus_client.h"

namespace {

std::atomic<uint32_t> last_number;
std::atomic<uint32_t> waiting;  // 0: none
std::recursive_mutex starts;

}  // namespace

uint32_t begin_start() {
    uint32_t number = ++last_number;
    if (number == 0) number = ++last_number;
    waiting = number;
    return number;
}

uint32_t waiting_start() {
    return waiting;
}

bool take_start(uint32_t number, const char* function) {
    if (!path_exists(FOTA_SESSION_LOCK)) give_up_waiting_start();
    if (number != 0 && waiting.compare_exchange_strong(number, 0)) return true;
    LOG_NOTICE_BOTH_AS(function, "Start of the installation given up\n");
    return false;
}

std::unique_lock<std::recursive_mutex> lock_starts() {
    return std::unique_lock<std::recursive_mutex>(starts);
}

void give_up_waiting_start() {
    const auto no_switch_under_way = lock_starts();
    if (waiting.exchange(0) == 0) return;
    LOG_NOTICE_BOTH("The start that waits is given up\n");
    (void)fota_wakelock_release();
    fota_broadcast_upgrade_status(FOTA_UPGRADE_IDLE);
}
