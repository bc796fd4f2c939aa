// Hostile bytes for everything that reads what others wrote, on a device in the sandbox.
//
// With libFuzzer: fuzz TARGET [options and folders of libFuzzer]. Without it: fuzz FOLDER runs every input in
// FOLDER/TARGET once, for each target; fuzz TARGET COUNT [SEED] runs COUNT inputs of random bytes.
#include <mqueue.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "common/file_helpers.h"
#include "core/config.h"
#include "core/daemon_state.h"
#include "core/dispatcher.h"
#include "core/runtime.h"
#include "fuzz/message_forms.h"
#include "history/history_slots.h"
#include "install/staging_results.h"
#include "msgq.h"
#include "package/checksum_list.h"
#include "package/crypto.h"
#include "package/sideload_package.h"
#include "results/cookies.h"
#include "results/result_processing.h"
#include "results/version_strings.h"
#include "support/device_files.h"
#include "tools/play/sandbox.h"
#ifdef FOTA_BUILD_WEB
#include "fuzz/web_requests.h"
#endif

namespace {

namespace fs = std::filesystem;

// Takes the input apart from its front. What is missing is zero.
struct input {
    std::string_view rest;
    uint8_t byte() {
        const uint8_t taken = rest.empty() ? 0 : static_cast<uint8_t>(rest[0]);
        rest.remove_prefix(rest.empty() ? 0 : 1);
        return taken;
    }
    std::string_view text() {  // two bytes of length, then the text
        const size_t length = byte() | static_cast<size_t>(byte()) << 8;
        const std::string_view taken = rest.substr(0, length);
        rest.remove_prefix(taken.size());
        return taken;
    }
};

// An assertion that stays in every build.
void must(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "fuzz: %s\n", what);
    std::abort();
}

void clean_device() {
    wipe_device();
    put_file("/var/log/debug_log", "");
    fota_clear_daemon_state();
    fota_daemon_state.running = 1;
    fota_config.maximum_pkg_size = fota_config.sideload_maximum_pkg_size = 1 << 20;
    fota_config.pre_install_wait_secs = 1;
}

// Whole records, each over what the ones before have left.
void fuzz_dispatcher(input in) {
    const uint8_t device = in.byte();
    if (device & 1) put_file(FOTA_SESSION_LOCK, "agent-a");
    if (device & 2) put_history({make_record(3), make_record(1, FOTA_REC_FACTORY_CFG), make_record(2)});
    if (device & 4) put_file(FOTA_TRACKING, "3");
    if (device & 8) put_file(FOTA_STAGING_UPDATE_DLPKG_VERIFIED, "");
    if (device & 16) put_file(FOTA_STAGING_SRC_VER, in.text());
    if (device & 32) put_file(FOTA_UPGRADE_PKG, in.text());
    if (device & 64) put_file(FOTA_RESULT_PROCESSED, in.text());
    if (device & 128) put_file(FOTA_STAGING_UPDATE_FAILURE, in.text());
    for (int count = 0; count < 6 && !in.rest.empty(); ++count) {
        fota_event_msg msg = {};
        msg.event = in.byte();
        memset(msg.payload.bytes, in.byte(), sizeof msg.payload.bytes);
        const std::string_view payload = in.text();
        memcpy(msg.payload.bytes, payload.data(), std::min(payload.size(), sizeof msg.payload.bytes));
        fota_handle_event_message(&msg);
        std::error_code none;
        const uintmax_t size = fs::file_size(FOTA_HISTORY_DB, none);
        must(none || size % sizeof(fota_history_rec) == 0, "the history is torn");
    }
}

void fuzz_history(input in) {
    put_file(FOTA_HISTORY_DB, in.rest);
    fota_record_count count = {};
    (void)get_record_count(&count);
    must(memchr(count.list, 0, sizeof count.list) != nullptr, "the list has no end");
    fota_history_rec record = {};
    for (uint32_t index = 0; index < 22; ++index) {
        (void)get_record_by_index(&record, index, index / 2, index / 3);
    }
    (void)get_last_success_record(&record);
    (void)get_latest_cfg_record(&record);
    const fota_history_rec added = make_record(allocate_new_record_id(), FOTA_REC_UPDATE, 200);
    if (added.rec_id == 0) return;
    must(add_record_to_db(&added) == FOTA_RC_SUCCESS, "no record fits");
    must(find_record_by_id(added.rec_id, &record) == FOTA_RC_SUCCESS, "the new record is lost");
    must(copy_result_into_db(404, 1, 2, "reason", added.rec_id) == FOTA_RC_SUCCESS, "the outcome is lost");
}

void fuzz_checksum_list(input in) {
    put_file("/opt/list/a", "content");
    put_file("/opt/list/dlpkg_cksum", in.rest);
    (void)verify_checksum("/opt/list", "/opt/list/dlpkg_cksum");
}

void fuzz_package_list(input in) {
    put_file(FOTA_SIDELOAD_TMP_DIR + std::string("/piece00"), in.text());
    put_file(FOTA_SIDELOAD_TMP_DIR + std::string("/piece00.sign"), in.text());
    put_file(FOTA_SIDELOAD_PKG_LIST, in.rest);
    (void)sideload_decrypt_files_in_list(FOTA_SIDELOAD_TMP_DIR);
}

// What the installer, the boot fail-safe and the external update tool leave; recorded as after a reboot.
void fuzz_results(input in) {
    static constexpr const char* FILES[] = {FOTA_STAGING_UPDATE_FAILURE,
                                            FOTA_STAGING_UPDATE_FAILURE_REASON,
                                            FOTA_STAGING_PRI_LINUX_FAILURE,
                                            FOTA_STAGING_PRI_MODEM_FAILURE,
                                            FOTA_REVERT_MARKER,
                                            FOTA_REVERT_ERROR_CODE,
                                            FOTA_REVERT_REASON,
                                            FOTA_TRACKING,
                                            FOTA_SESSION_LOCK,
                                            FOTA_STAGING_EST_UPD_TIME,
                                            FOTA_STAGING_SUA_COOKIE,
                                            FOTA_STAGING_SUA_PKG_SIZE,
                                            FOTA_STAGING_SUA_PKG_NAME,
                                            FOTA_STAGING_SUA_PKG_TS};
    const unsigned present = in.byte() | static_cast<unsigned>(in.byte()) << 8;
    for (unsigned bit = 0; bit < std::size(FILES); ++bit) {
        if (present >> bit & 1) put_file(FILES[bit], in.text());
    }
    char text[FOTA_TEXT_SIZE] = {};
    (void)get_failure_fumo_error_code(text);
    must(memchr(text, 0, sizeof text) != nullptr, "the reason has no end");
    check_and_update_fota_results();
}

void fuzz_versions(input in) {
    put_file(FOTA_OS_VERSION, in.text());
    put_file(FOTA_KERNEL_MINOR_VERSION, in.text());
    put_file("/run/vexa/modem/fw_version", in.text());
    put_file(FOTA_STAGING_SRC_VER, in.text());
    fota_device_info device;
    memset(&device, 'x', sizeof device);
    in.rest.copy(reinterpret_cast<char*>(&device), sizeof device);
    char text[FOTA_TEXT_SIZE];
    (void)get_kernel_version(text);
    (void)construct_fota_version_string_from_device(text);
    (void)construct_fota_version_string(text, &device);
    must(memchr(text, 0, sizeof text) != nullptr, "the version has no end");
    (void)check_source_package_version();
}

void fuzz_config(input in) {
    put_file(FOTA_CONFIG_FILE, in.rest);
    put_file("/opt/qast/etc/features.xml", in.rest);
    (void)fota_init_config();
    must(memchr(fota_config.platform_prefix, 0, sizeof fota_config.platform_prefix) != nullptr,
         "the prefix has no end");
    settings_features features = {};
    (void)settings_get_features(&features);
}

void fuzz_signed_message(input in) {
    put_file("/tmp/message", in.rest);
    (void)verify_signature(FOTA_TEST_KEYS "/build_cert.pem", "/tmp/message", "/tmp/out");
}

void fuzz_encrypted_message(input in) {
    put_file("/tmp/message", in.rest);
    (void)decrypt_file(FOTA_TEST_KEYS "/device.pem", "/tmp/message", "/tmp/out");
}

void fuzz_message_forms(input in) {
    compare_message_forms(in.rest);
}

void fuzz_reply_header(input in) {
    mq_attr form = {};
    form.mq_maxmsg = 1;
    form.mq_msgsize = FOTA_REQUEST_SIZE;
    const mqd_t queue = mq_open("/r", O_RDONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0600, &form);
    fota_event_msg msg = {};
    in.rest.copy(reinterpret_cast<char*>(&msg), sizeof msg);
    (void)msgq_resp_handler(&msg, sizeof msg);
    mq_close(queue);
    mq_unlink("/r");
}

constexpr struct {
    const char* name;
    void (*run)(input in);
    bool needs_device = true;
} TARGETS[] = {
    {"dispatcher", fuzz_dispatcher},
    {"history", fuzz_history},
    {"checksum_list", fuzz_checksum_list},
    {"package_list", fuzz_package_list},
    {"results", fuzz_results},
    {"versions", fuzz_versions},
    {"config", fuzz_config},
    {"signed_message", fuzz_signed_message},
    {"reply_header", fuzz_reply_header},
    {"encrypted_message", fuzz_encrypted_message},
    {"message_forms", fuzz_message_forms, false},
#ifdef FOTA_BUILD_WEB
    {"web", [](input in) { send_web_requests(in.rest); }, false},
#endif
};

void (*chosen)(input in);
bool needs_device;

// False when there is no such target.
bool choose_target(std::string_view name) {
    for (const auto& target : TARGETS) {
        if (name != target.name) continue;
        chosen = target.run;
        needs_device = target.needs_device;
    }
    return chosen != nullptr;
}

void run_once(std::string_view data) {
    if (needs_device) clean_device();
    chosen({data});
}

int waits;

}  // namespace

// A worker thread runs to its end at once, and waits end early: one input then is one sequence of steps.
int start_thread(pthread_t* handle, void* (*entry)(void*)) {
    *handle = pthread_self();
    waits = 0;
    entry(nullptr);
    return 0;
}

void wait_seconds(unsigned) {
    if (++waits > 2) fota_daemon_state.running = 0;
}

time_t clock_seconds() {
    return time(nullptr);
}

#ifdef FOTA_LIBFUZZER

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    if (*argc < 2 || !choose_target((*argv)[1])) {
        std::fprintf(stderr, "usage: fuzz TARGET [FOLDER...]; targets:");
        for (const auto& target : TARGETS) std::fprintf(stderr, " %s", target.name);
        std::fprintf(stderr, "\n");
        std::exit(2);
    }
    sandbox_options options;
    options.keep = {sandbox_program_folder(), FOTA_TEST_KEYS};
    static std::vector<std::string>
        folders;  // by their absolute names: the sandbox has another current folder
    folders.reserve(static_cast<size_t>(*argc));
    for (int i = 2; i < *argc; ++i) {
        if (!fs::is_directory((*argv)[i])) continue;
        (*argv)[i] = folders.emplace_back(fs::canonical((*argv)[i])).data();
        for (const char* const wiped : {"/opt/", "/tmp/", "/run/", "/dev/"}) {
            must(!folders.back().starts_with(wiped), "a corpus in /opt, /tmp, /run or /dev would be wiped");
        }
    }
    options.keep_writable = folders;
    std::copy(*argv + 2, *argv + *argc + 1, *argv + 1);
    --*argc;
    sandbox_enter(options);
    make_message_forms();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    run_once({reinterpret_cast<const char*>(data), size});
    return 0;
}

#else

std::string again;  // how to have what ended it once more

void say_again(int) {
    std::fprintf(stderr, "\n%s\n", again.c_str());
}

int run_random(const std::string& target, unsigned long count, unsigned long seed) {
    sandbox_options options;
    options.keep = {sandbox_program_folder(), FOTA_TEST_KEYS};
    sandbox_enter(options);
    make_message_forms();
    std::signal(SIGABRT, say_again);
    std::printf("fuzz: %lu inputs, seed %lu\n", count, seed);
    for (unsigned long i = 0; i < count; ++i) {
        if (i % 10000 == 0) std::fprintf(stderr, "\rfuzz: %lu", i);
        again = "again: fuzz " + target + " 1 " + std::to_string(seed + i);
        std::mt19937_64 random(seed + i);
        std::string bytes(random() % 48, '\0');
        for (char& byte : bytes) byte = static_cast<char>(random());
        run_once(bytes);
    }
    std::printf("\nfuzz: nothing found\n");
    return 0;
}

int main(int argc, char** argv) {
    if (argc >= 3 && choose_target(argv[1])) {
        return run_random(argv[1], std::stoul(argv[2]),
                          argc > 3 ? std::stoul(argv[3]) : std::random_device()());
    }
    if (argc != 2) return 2;
    const fs::path corpus = fs::absolute(argv[1]);
    sandbox_options options;
    options.keep = {sandbox_program_folder(), FOTA_TEST_KEYS, corpus};
    sandbox_enter(options);
    make_message_forms();
    for (const auto& target : TARGETS) {
        (void)choose_target(target.name);
        int count = 0;
        for (const auto& file : fs::directory_iterator(corpus / target.name)) {
            std::printf("%s\n", file.path().c_str());  // the last line names the input that ended it
            std::fflush(stdout);
            run_once(get_file(file.path()));
            ++count;
        }
        if (count == 0) return 1;
    }
    return 0;
}

#endif
