// The device around the daemon: what its image and its boot put in place, and the daemon's process.
//
// Everything here refuses to work outside the sandbox. Functions that return nothing throw std::exception
// with one sentence when they fail. The daemon must not run while the device is seeded or rebooted.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "fota/request.h"

inline constexpr char DEVICE_MSGBUS_FOLDER[] = "/run/vexa/msgbus";
inline constexpr char DEVICE_DEBUG_LOG[] = "/var/log/debug_log";
inline constexpr char DEVICE_DSM_FOLDER[] = "/run/vexa/dsm";

// How long a daemon may take to come up or to go.
inline constexpr int DEVICE_TIMEOUT_MS = 20000;

// Makes the device as it leaves the factory, with the keys device.pem, build_cert.pem and build_pubkey.pem
// from `keys_folder` unless that is empty, and boots it. Nothing of an earlier device is left.
void device_seed(const std::string& keys_folder);

// Boots the device that /opt holds, with the keys from `keys_folder` in the place of its own unless that is
// empty; seeds it when there is none, and then returns false.
[[nodiscard]] bool device_boot(const std::string& keys_folder);

// Loses what a restart loses (/run, /tmp, message queues, side-load parts), and makes what the other services
// have ready before the daemon starts.
void device_reboot();

// The folder in /proc of a process of the sandbox, which may be that of the machine outside, with its
// numbers. Empty: there is none.
[[nodiscard]] std::string process_folder(pid_t id);

// Ends, from process 1 of the sandbox, every other process in it at once.
void device_cut_power();

// Replaces the value of a message-bus key, or a file of a service, as a whole.
void device_write(const std::string& path, const std::string& content);

// The content of a file, and its first line; empty when it cannot be read.
[[nodiscard]] std::string device_read(const std::string& path);
[[nodiscard]] std::string device_read_line(const std::string& path);

// The records in the history's file, in its order.
[[nodiscard]] std::vector<fota_history_rec> device_history();

// The sbin beside the bin `folder`, for a device's daemons as installed.
[[nodiscard]] std::string installed_daemons(const std::string& folder);

// Where the daemon that the tools in `folder` play lies. One that only plays, with the services of a
// simulated device, comes before that of another device: in simulated/ as built, in ../libexec/fotasim as
// installed.
[[nodiscard]] std::string daemon_program(const std::string& folder);

// Starts the daemon that lies at `program` and returns its process id once it has left for the background; -1
// when it has not got there. Call it from process 1 of the sandbox, which the daemon then belongs to.
[[nodiscard]] pid_t daemon_launch(const std::string& program);

// Waits until the daemon answers a request. False when it ended first, or when the time is over.
[[nodiscard]] bool daemon_wait_ready(pid_t daemon, int timeout_ms = DEVICE_TIMEOUT_MS);

// Waits until the daemon has ended. Returns its exit status, or 128 and the number of the signal that ended
// it, or -1 when it still runs after that time.
[[nodiscard]] int daemon_wait_end(pid_t daemon, int timeout_ms = DEVICE_TIMEOUT_MS);

// Sends the daemon a signal, SIGTERM or SIGKILL, and waits until it has ended, as daemon_wait_end() does.
[[nodiscard]] int daemon_end(pid_t daemon, int signal_number, int timeout_ms = DEVICE_TIMEOUT_MS);
