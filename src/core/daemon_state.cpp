#include "core/daemon_state.h"

#include "core/config.h"

fota_daemon_state_block fota_daemon_state;

void fota_clear_daemon_state() {
    fota_daemon_state.running = 0;
    fota_daemon_state.signal_pipe[0] = fota_daemon_state.signal_pipe[1] = 0;
    fota_daemon_state.worker_thread = 0;
    fota_daemon_state.sua_wait_thread = 0;
    fota_daemon_state.install_wait_thread = 0;
    fota_daemon_state.last_upgrade_status = 0;
    fota_daemon_state.install_wait_secs = 0;
}

uint16_t fota_is_running() {
    return fota_daemon_state.running;
}
int32_t fota_get_last_upgrade_status() {
    return fota_daemon_state.last_upgrade_status;
}
void fota_set_last_upgrade_status(int32_t status) {
    fota_daemon_state.last_upgrade_status = status;
}
const char* fota_get_platform_prefix() {
    return fota_config.platform_prefix;
}
uint32_t fota_get_pre_install_wait_secs() {
    return fota_config.pre_install_wait_secs;
}
uint32_t fota_get_install_wait_secs() {
    return fota_daemon_state.install_wait_secs;
}

uint32_t fota_set_install_wait_secs(uint32_t seconds) {
    fota_daemon_state.install_wait_secs = seconds;
    return seconds;
}

pthread_t* fota_worker_thread() {
    return &fota_daemon_state.worker_thread;
}
pthread_t* fota_sua_wait_thread() {
    return &fota_daemon_state.sua_wait_thread;
}
pthread_t* fota_install_wait_thread() {
    return &fota_daemon_state.install_wait_thread;
}
