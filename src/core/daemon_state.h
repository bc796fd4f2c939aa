// What the process as a whole has to know, and nothing that has to survive it. The accessors may be called by
// any thread.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

struct fota_daemon_state_block {
    std::atomic<uint16_t> running;  // 1 while the request loop is to go on; cleared by the signal handler
    int signal_pipe[2];             // wakes the request loop: read end, write end
    pthread_t worker_thread;        // full-image installation or side-load wait; never both
    pthread_t sua_wait_thread;      // script-driven update's wait
    pthread_t install_wait_thread;  // countdown to the run-level switch
    std::atomic<int32_t> last_upgrade_status;  // last value broadcast, fota_upgrade_status
    std::atomic<uint32_t> install_wait_secs;   // where that countdown starts; set before its thread is made
};

extern fota_daemon_state_block fota_daemon_state;

// Zeroes the whole block. Before any thread exists.
void fota_clear_daemon_state();

[[nodiscard]] uint16_t fota_is_running();
[[nodiscard]] int32_t fota_get_last_upgrade_status();
void fota_set_last_upgrade_status(int32_t status);
[[nodiscard]] const char* fota_get_platform_prefix();
[[nodiscard]] uint32_t fota_get_pre_install_wait_secs();
[[nodiscard]] uint32_t fota_get_install_wait_secs();
uint32_t fota_set_install_wait_secs(uint32_t seconds);

// Where the handles of the worker threads are kept; 0 until the thread is made. They are never joined.
[[nodiscard]] pthread_t* fota_worker_thread();
[[nodiscard]] pthread_t* fota_sua_wait_thread();
[[nodiscard]] pthread_t* fota_install_wait_thread();
